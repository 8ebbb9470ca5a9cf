# A unit is a library of its own that sees only the floors it names: an include of anything above fails to compile.
#
#   tsbackup_unit(NAME [FOLDER folder] SOURCES ... [FLOORS ...] [LIBRARIES ...])
#
# TSBACKUP_UNIT is the tag that the unit's diagnostics carry.
function(tsbackup_unit name)
  cmake_parse_arguments(UNIT "" "TAG;FOLDER" "SOURCES;FLOORS;LIBRARIES" ${ARGN})
  if(NOT UNIT_TAG)
    set(UNIT_TAG ${name})
  endif()
  if(NOT UNIT_FOLDER)
    set(UNIT_FOLDER src/${name})
  endif()
  list(TRANSFORM UNIT_SOURCES PREPEND ${PROJECT_SOURCE_DIR}/${UNIT_FOLDER}/)
  add_library(${name} STATIC ${UNIT_SOURCES})
  target_compile_definitions(${name} PRIVATE TSBACKUP_UNIT="${UNIT_TAG}")
  target_include_directories(${name} INTERFACE ${PROJECT_SOURCE_DIR}/${UNIT_FOLDER}
                                     PRIVATE ${PROJECT_SOURCE_DIR}/${UNIT_FOLDER})
  target_link_libraries(${name} PRIVATE tsbackup_headers tsbackup_options ${UNIT_FLOORS} ${UNIT_LIBRARIES})
endfunction()
