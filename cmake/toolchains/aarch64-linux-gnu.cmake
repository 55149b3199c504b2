# Cross-compiles for Linux on aarch64 with Debian's cross toolchain
# (g++-aarch64-linux-gnu) against the arm64 multiarch packages of liblog,
# googletest and libxml2, and runs the built programs under qemu-aarch64.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Headers and libraries of the target come from the multiarch folders
# (/usr/include, /usr/lib/aarch64-linux-gnu) and the cross toolchain's own
# root; programs such as pkg-config come from the host.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)

# -L makes qemu take the dynamic loader from the cross toolchain's root.
# That loader must also get the C and C++ runtime of the same root: the
# cache it would otherwise consult (/etc/ld.so.cache) points at the
# multiarch libc6:arm64, a different glibc build, and a loader and libc of
# two builds hang in the first pthread_create. liblog still comes
# from the multiarch folders through the binaries' RUNPATH and the cache.
# A run that needs its own search path puts it in front of this one
# (-E LD_LIBRARY_PATH=<own>:${VEK_EMULATOR_LIBRARY_PATH}).
set(VEK_EMULATOR_LIBRARY_PATH /usr/aarch64-linux-gnu/lib)
find_program(VEK_QEMU_AARCH64 NAMES qemu-aarch64 qemu-aarch64-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${VEK_QEMU_AARCH64} -L /usr/aarch64-linux-gnu
    -E LD_LIBRARY_PATH=${VEK_EMULATOR_LIBRARY_PATH})
