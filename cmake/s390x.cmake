# Cross build for s390x, a big-endian Linux host. scripts/big_endian makes the sysroot (the libraries
# of Debian's s390x packages) and passes its place; compiler, C library headers and C++ library are
# those of g++-s390x-linux-gnu. What is built can be run here through user-mode emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(LB_S390X_SYSROOT "" CACHE PATH "Root directory with the s390x libraries")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LB_S390X_SYSROOT)

set(CMAKE_C_COMPILER s390x-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER s390x-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE s390x-linux-gnu)
set(CMAKE_SYSROOT ${LB_S390X_SYSROOT})
set(CMAKE_FIND_ROOT_PATH ${LB_S390X_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-s390x -L ${LB_S390X_SYSROOT})

# The sysroot's descriptions of libraries, never this host's.
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${LB_S390X_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${LB_S390X_SYSROOT}/usr/lib/s390x-linux-gnu/pkgconfig:${LB_S390X_SYSROOT}/usr/share/pkgconfig)
