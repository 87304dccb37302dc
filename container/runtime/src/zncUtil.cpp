// zncUtil.cpp
