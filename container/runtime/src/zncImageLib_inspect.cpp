// zncImageLib_inspect.cpp
