// task.cpp
