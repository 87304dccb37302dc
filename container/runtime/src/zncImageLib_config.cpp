// zncImageLib_config.cpp
