# 64-bit ARM with musl, by clang and lld. It stands alone: with a sysroot of your own, for any project,
#   cmake -DCMAKE_TOOLCHAIN_FILE=aarch64-linux-musl.cmake -DCLOUDTUNNEL_SYSROOT=/path/to/sysroot ...
# The sysroot may also come from the environment variable of the same name. Programs that are built run under qemu's user
# emulation where it is installed. Other compilers: set CMAKE_C_COMPILER and CMAKE_CXX_COMPILER beside it.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

if(NOT CLOUDTUNNEL_SYSROOT AND DEFINED ENV{CLOUDTUNNEL_SYSROOT})
  set(CLOUDTUNNEL_SYSROOT $ENV{CLOUDTUNNEL_SYSROOT})
endif()
if(NOT EXISTS "${CLOUDTUNNEL_SYSROOT}/usr/include/stdio.h")
  message(FATAL_ERROR "No C library in '${CLOUDTUNNEL_SYSROOT}'; set CLOUDTUNNEL_SYSROOT to a sysroot of the device")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CLOUDTUNNEL_SYSROOT)
set(CMAKE_SYSROOT ${CLOUDTUNNEL_SYSROOT})

if(NOT CMAKE_C_COMPILER)
  set(CMAKE_C_COMPILER clang)
endif()
if(NOT CMAKE_CXX_COMPILER)
  set(CMAKE_CXX_COMPILER clang++)
endif()
set(CMAKE_C_COMPILER_TARGET aarch64-linux-musl)
set(CMAKE_CXX_COMPILER_TARGET aarch64-linux-musl)
# The sysroot has all that is needed: nothing of the machine's own compiler is looked for, and of its C++ library neither.
set(cloudtunnel_alone "--gcc-toolchain=${CLOUDTUNNEL_SYSROOT}/no-compiler -Wno-unused-command-line-argument")
set(CMAKE_C_FLAGS_INIT "${cloudtunnel_alone}")
set(CMAKE_CXX_FLAGS_INIT "${cloudtunnel_alone} -stdlib=libc++")
# lld 19 where it is installed: it knows 64-bit ARM's tiny model. Else the compiler's own.
find_program(CLOUDTUNNEL_LINKER NAMES ld.lld-19 NO_CMAKE_FIND_ROOT_PATH)
set(cloudtunnel_linker -fuse-ld=lld)
if(CLOUDTUNNEL_LINKER)
  set(cloudtunnel_linker --ld-path=${CLOUDTUNNEL_LINKER})
endif()
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "${cloudtunnel_linker}")
endforeach()

set(CMAKE_FIND_ROOT_PATH ${CLOUDTUNNEL_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CLOUDTUNNEL_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${CLOUDTUNNEL_SYSROOT}/usr/lib/pkgconfig:${CLOUDTUNNEL_SYSROOT}/usr/share/pkgconfig)

find_program(CLOUDTUNNEL_EMULATOR NAMES qemu-aarch64 qemu-aarch64-static)
if(CLOUDTUNNEL_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${CLOUDTUNNEL_EMULATOR};-L;${CLOUDTUNNEL_SYSROOT})
endif()
