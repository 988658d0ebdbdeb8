# Debian's cross toolchain for armhf: 32-bit ARMv7 with hardware floating point.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # silences notes on the ABI change of GCC 7

set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Runs the tests; a full path, since tests start it again with their own PATH.
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-arm -L /usr/arm-linux-gnueabihf)
