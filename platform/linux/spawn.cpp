// spawn.cpp
