// terminal.cpp
