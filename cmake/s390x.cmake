# Cross build for s390x, a big-endian Linux host. scripts/big_endian makes the sysroot (the libraries
# of Debian's s390x packages) and passes its place; C library headers, C++ library and linker are those
# of g++-s390x-linux-gnu. What is built can be run here through user-mode emulation. The compiler is
# clang, which takes half the time.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(LB_S390X_SYSROOT "" CACHE PATH "Root directory with the s390x libraries")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LB_S390X_SYSROOT)

set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_CXX_COMPILER_TARGET s390x-linux-gnu)
set(CMAKE_CXX_COMPILER_EXTERNAL_TOOLCHAIN /usr)
set(CMAKE_CXX_FLAGS_INIT "-idirafter /usr/s390x-linux-gnu/include")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-B/usr/s390x-linux-gnu/lib -L/usr/s390x-linux-gnu/lib")
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
