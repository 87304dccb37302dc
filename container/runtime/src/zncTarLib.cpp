// zncTarLib.cpp
