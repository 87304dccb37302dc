// zncRuntimeApi_start.cpp
