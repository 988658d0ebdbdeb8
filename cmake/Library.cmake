# navtwine_library(NAME SOURCES... USES targets...): one folder, one static library.
# Files include each other by their path from the root, so an include names the folder it comes from.
function(navtwine_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;USES" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_USES} PRIVATE navtwine_warnings)
endfunction()
