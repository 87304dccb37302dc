// zncImageLib.cpp
