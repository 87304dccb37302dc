// zncGzLib.cpp
