# For Debian's cross compiler, with the libraries that scripts/cross-root.sh unpacks. Tests run in qemu.
set(ZNC_CROSS_PROCESSOR s390x)
set(ZNC_CROSS_TRIPLET s390x-linux-gnu)
set(ZNC_CROSS_EMULATOR qemu-s390x)
set(ZNC_CROSS_ROOT ${CMAKE_CURRENT_LIST_DIR}/../../build/cross/s390x/root)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
