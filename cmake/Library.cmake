# navtwine_library(NAME SOURCES... USES targets...): one folder, one static library.
# Includes are relative to the root, so that each names its folder.
function(navtwine_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;USES" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_USES} PRIVATE navtwine_warnings)
endfunction()
