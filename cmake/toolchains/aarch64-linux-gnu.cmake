# 64-bit ARM, with Debian's g++-aarch64-linux-gnu.
set(QWD_CROSS_TRIPLE aarch64-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(QWD_QEMU qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/linux-cross.cmake)
