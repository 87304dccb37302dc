# For Debian's cross compiler, with the libraries that scripts/cross-root.sh unpacks. Tests run in qemu.
set(ZNC_CROSS_PROCESSOR arm)
set(ZNC_CROSS_TRIPLET arm-linux-gnueabihf)
set(ZNC_CROSS_EMULATOR qemu-arm)
set(ZNC_CROSS_ROOT ${CMAKE_CURRENT_LIST_DIR}/../../build/cross/armhf/root)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
