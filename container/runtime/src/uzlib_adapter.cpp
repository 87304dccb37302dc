// uzlib_adapter.cpp
