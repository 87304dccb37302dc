// zncRuntimeSpec.cpp
