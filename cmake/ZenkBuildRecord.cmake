# zenk_build_record: the header with what the library tells about its build, kept up to date by each build.

set(ZENK_SOURCE_ID "" CACHE STRING "Identity of the source in the build record; empty asks git")

set(zenk_build_record_dir ${PROJECT_BINARY_DIR}/build_record)
add_custom_target(zenk_write_build_record
  COMMAND ${CMAKE_COMMAND}
    -DSOURCE_DIR=${PROJECT_SOURCE_DIR} "-DSOURCE_ID=${ZENK_SOURCE_ID}"
    -DMAJOR=${PROJECT_VERSION_MAJOR} -DMINOR=${PROJECT_VERSION_MINOR} -DNUMBER=${PROJECT_VERSION_PATCH}
    -DOUTPUT=${zenk_build_record_dir}/build_record.h
    -P ${CMAKE_CURRENT_LIST_DIR}/WriteBuildRecord.cmake
  BYPRODUCTS ${zenk_build_record_dir}/build_record.h
  COMMENT "" VERBATIM)

add_library(zenk_build_record INTERFACE)
target_include_directories(zenk_build_record INTERFACE ${zenk_build_record_dir})
add_dependencies(zenk_build_record zenk_write_build_record)
