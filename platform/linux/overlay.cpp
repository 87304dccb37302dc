// overlay.cpp
