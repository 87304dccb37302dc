// signal.cpp
