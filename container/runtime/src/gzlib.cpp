// gzlib.cpp
