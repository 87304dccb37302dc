// ns_mount.cpp
