# Shared part of the cross toolchain files. The libraries Debian does not ship for
# the target (all of them for mips, which Debian no longer builds) come as link
# stubs with the real sonames from stub-libs.sh, in HOSTRIX_CROSS_STUBS: the
# programs link as they would on the box, and the box's own libmnl, libnftnl and
# libsqlite3 serve them there.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${HOSTRIX_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${HOSTRIX_CROSS_TRIPLE}-g++)
if(NOT HOSTRIX_CROSS_STUBS)
  message(FATAL_ERROR "-DHOSTRIX_CROSS_STUBS=DIR is needed (a folder made by stub-libs.sh)")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES HOSTRIX_CROSS_STUBS)
set(CMAKE_FIND_ROOT_PATH /usr/${HOSTRIX_CROSS_TRIPLE} ${HOSTRIX_CROSS_STUBS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
# The libraries' headers are the same on every machine: the build machine's serve.
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${HOSTRIX_CROSS_STUBS}/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
# Tests (and their discovery) run under qemu-user with the target's C library.
set(CMAKE_CROSSCOMPILING_EMULATOR ${HOSTRIX_CROSS_QEMU} -L /usr/${HOSTRIX_CROSS_TRIPLE}
  -E LD_LIBRARY_PATH=${HOSTRIX_CROSS_STUBS}/lib)
