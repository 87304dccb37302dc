# For Debian's cross compiler, with the libraries that scripts/cross-root.sh unpacks. Tests run in qemu.
set(ZNC_CROSS_PROCESSOR aarch64)
set(ZNC_CROSS_TRIPLET aarch64-linux-gnu)
set(ZNC_CROSS_EMULATOR qemu-aarch64)
set(ZNC_CROSS_ROOT ${CMAKE_CURRENT_LIST_DIR}/../../build/cross/arm64/root)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
