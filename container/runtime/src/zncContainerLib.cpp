// zncContainerLib.cpp
