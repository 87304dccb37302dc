// zncDigest.cpp
