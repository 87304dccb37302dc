// zncRuntimeSpec_hooks.cpp
