// zncRuntimeCSLib.cpp
