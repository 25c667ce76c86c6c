# Writes build_record.h for this moment's state of the source; runs at each build (cmake -P).
# Takes SOURCE_DIR, SOURCE_ID (may be empty), MAJOR, MINOR, NUMBER, OUTPUT.

set(source_id "${SOURCE_ID}")
if(NOT source_id)
  # The clone may belong to another user than the one who builds.
  execute_process(COMMAND git -c safe.directory=* describe --always --dirty --tags
    WORKING_DIRECTORY ${SOURCE_DIR} OUTPUT_VARIABLE source_id OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT source_id)
  set(source_id unknown)
endif()
# It becomes part of one line of a string of the assembler.
string(REGEX REPLACE "[^A-Za-z0-9._/+~@:-]" "_" source_id "${source_id}")

# Writes only what has changed, so that nothing is compiled anew without need.
configure_file(${CMAKE_CURRENT_LIST_DIR}/build_record.h.in ${OUTPUT} @ONLY)
