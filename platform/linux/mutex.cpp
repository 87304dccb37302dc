// mutex.cpp
