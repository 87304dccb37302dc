// zncRuntimeApi.cpp
