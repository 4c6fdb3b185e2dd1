# The card's controller: an ARM9 (ARMv5TE) without floating point. Used by the preset arm9.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabi-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabi-g++)
# Debian's compiler would make position-independent code, which needs a loader.
set(CMAKE_C_FLAGS_INIT "-march=armv5te -mfloat-abi=soft -fno-pie")
set(CMAKE_CXX_FLAGS_INIT ${CMAKE_C_FLAGS_INIT})
set(CMAKE_EXE_LINKER_FLAGS_INIT -no-pie)
# Runs what is built. Without CMAKE_SYSROOT the C library is the compiler's.
if(CMAKE_SYSROOT)
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -cpu arm926 -L ${CMAKE_SYSROOT})
else()
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -cpu arm926 -L /usr/arm-linux-gnueabi)
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
