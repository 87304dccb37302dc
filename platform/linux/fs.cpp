// fs.cpp
