// zncOverlayLib.cpp
