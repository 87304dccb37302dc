// cJSON_Additions.cpp
