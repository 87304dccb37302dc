// zncImageLib_layout.cpp
