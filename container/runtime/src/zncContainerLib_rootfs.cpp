// zncContainerLib_rootfs.cpp
