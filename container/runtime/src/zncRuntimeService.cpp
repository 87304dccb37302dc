// zncRuntimeService.cpp
