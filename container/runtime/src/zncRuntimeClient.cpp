// zncRuntimeClient.cpp
