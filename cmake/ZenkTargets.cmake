# What every target of ours has in common: warnings, sanitizers, hidden symbols.

add_library(zenk_build_flags INTERFACE)
target_compile_features(zenk_build_flags INTERFACE cxx_std_20)
target_include_directories(zenk_build_flags INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(zenk_build_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  # Source paths stand in trace lines and debug data; they must not depend on the build machine.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
  $<$<BOOL:${ZENK_WARNINGS_AS_ERRORS}>:-Werror>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
if(ZENK_SANITIZE)
  target_compile_options(zenk_build_flags INTERFACE -fsanitize=${ZENK_SANITIZE} -fno-omit-frame-pointer)
  target_link_options(zenk_build_flags INTERFACE -fsanitize=${ZENK_SANITIZE})
endif()

# zenk_object_library(NAME SOURCES...): objects for the shared library that the tests link too.
function(zenk_object_library name)
  add_library(${name} OBJECT ${ARGN})
  target_link_libraries(${name} PUBLIC zenk_build_flags)
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
endfunction()

# zenk_program(NAME SOURCES...): an executable of ours.
function(zenk_program name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE zenk_build_flags)
  set_target_properties(${name} PROPERTIES BUILD_RPATH "\$ORIGIN" BUILD_RPATH_USE_ORIGIN ON)
endfunction()
