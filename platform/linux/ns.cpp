// ns.cpp
