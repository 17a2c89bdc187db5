# 32-bit big-endian MIPS (o32), the processor of many routers, with Debian's g++-mips-linux-gnu.
set(QWD_CROSS_TRIPLE mips-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR mips)
set(QWD_QEMU qemu-mips-static)
include(${CMAKE_CURRENT_LIST_DIR}/linux-cross.cmake)
