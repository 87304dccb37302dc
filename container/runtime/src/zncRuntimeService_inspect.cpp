// zncRuntimeService_inspect.cpp
