# Cross build for armhf: Debian's arm-linux-gnueabihf toolchain, qemu-arm-static to run tests.
set(HOSTRIX_CROSS_TRIPLE arm-linux-gnueabihf)
set(HOSTRIX_CROSS_QEMU qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain.cmake)
