// msgq.cpp
