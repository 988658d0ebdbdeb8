# Build flags of all our binaries, including tests and stand-ins.

# 64-bit time and file sizes on 32-bit machines too: a 32-bit time_t overflows in 2038.
add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)

include(CheckPIESupported)
check_pie_supported()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

add_compile_options(-fstack-protector-strong -fstack-clash-protection -ffunction-sections -fdata-sections)
add_link_options(LINKER:--gc-sections LINKER:-z,relro LINKER:-z,now)

# _FORTIFY_SOURCE needs an optimised build.
if(NOT CMAKE_BUILD_TYPE STREQUAL Debug)
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
endif()
