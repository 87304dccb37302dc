// zncImageLib_validate.cpp
