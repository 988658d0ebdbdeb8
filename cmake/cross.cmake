# Debian's cross compilers: NAVTWINE_TRIPLET is the machine's GNU name, such as arm-linux-gnueabihf. The presets armel
# (ARMv5, soft float), armhf (ARMv7, hardware float) and arm64 set it.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES NAVTWINE_TRIPLET)
string(REGEX MATCH "^[^-]+" CMAKE_SYSTEM_PROCESSOR "${NAVTWINE_TRIPLET}")
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${NAVTWINE_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${NAVTWINE_TRIPLET}-g++)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL arm)
  set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # silences notes on the ABI change of GCC 7
endif()

set(CMAKE_FIND_ROOT_PATH /usr/${NAVTWINE_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Runs the tests; full paths, since tests start it again with their own PATH. Without the setting a forked child, such
# as the gpspipe of popen, hangs now and then: GLib's slices, which the emulator uses, may be locked at the fork.
set(CMAKE_CROSSCOMPILING_EMULATOR
  /usr/bin/env G_SLICE=always-malloc /usr/bin/qemu-${CMAKE_SYSTEM_PROCESSOR} -L /usr/${NAVTWINE_TRIPLET})
if(NAVTWINE_TRIPLET STREQUAL arm-linux-gnueabi)
  list(APPEND CMAKE_CROSSCOMPILING_EMULATOR -cpu arm926) # ARMv5, which traps what only later ones know
endif()
