# 32-bit ARM with hardware floating point (ARMv7, EABI), with Debian's g++-arm-linux-gnueabihf.
set(QWD_CROSS_TRIPLE arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(QWD_QEMU qemu-arm-static)
# ARM code, not Thumb: its frame pointer chain is what the crash trace walks.
set(QWD_CROSS_CXX_FLAGS -marm)
include(${CMAKE_CURRENT_LIST_DIR}/linux-cross.cmake)
