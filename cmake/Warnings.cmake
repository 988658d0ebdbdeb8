# Carries the warning flags for all our targets.
add_library(navtwine_warnings INTERFACE)
target_compile_options(navtwine_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow
  -Wcast-align -Wcast-qual -Wdouble-promotion -Wformat=2 -Wnon-virtual-dtor
  -Wold-style-cast -Woverloaded-virtual -Wundef -Wvla
  $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-branches -Wduplicated-cond -Wlogical-op>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
  $<$<BOOL:${NAVTWINE_WERROR}>:-Werror>)
