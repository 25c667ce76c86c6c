# What every target of ours has in common: warnings, sanitizers, hardening, hidden symbols.

include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

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
  # The instrumentation hides from g++ what has been initialized.
  target_compile_options(zenk_build_flags INTERFACE -fsanitize=${ZENK_SANITIZE} -fno-omit-frame-pointer
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_link_options(zenk_build_flags INTERFACE -fsanitize=${ZENK_SANITIZE})
elseif(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  # Bytes from the network pass through here. Level 3 sees more buffers, but older compilers do not know it; and some
  # distributions set a level of their own, which would be a redefinition.
  set(zenk_fortify_level 2)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12)
    set(zenk_fortify_level 3)
  endif()
  target_compile_options(zenk_build_flags INTERFACE
    -fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=${zenk_fortify_level})
  target_link_options(zenk_build_flags INTERFACE LINKER:-z,relro,-z,now)
endif()

# zenk_object_library(NAME SOURCES...): objects for the shared library that the tests link too.
function(zenk_object_library name)
  add_library(${name} OBJECT ${ARGN})
  target_link_libraries(${name} PUBLIC zenk_build_flags)
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
endfunction()

# zenk_shared_library(NAME SOURCES...): a library that finds its neighbours beside itself, wherever it is installed.
function(zenk_shared_library name)
  add_library(${name} SHARED ${ARGN})
  target_link_libraries(${name} PRIVATE zenk_build_flags)
  set_target_properties(${name} PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
    BUILD_RPATH "\$ORIGIN" BUILD_RPATH_USE_ORIGIN ON INSTALL_RPATH "\$ORIGIN")
  target_link_options(${name} PRIVATE LINKER:--as-needed)
  # Clang's sanitizers leave their run-time library to the program.
  if(NOT (ZENK_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang"))
    target_link_options(${name} PRIVATE LINKER:-z,defs)
  endif()
endfunction()

# zenk_program(NAME SOURCES...): an executable of ours.
function(zenk_program name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE zenk_build_flags)
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON
    BUILD_RPATH "\$ORIGIN" BUILD_RPATH_USE_ORIGIN ON)
endfunction()

# zenk_optional_part(FOLDER GROUP PACKAGES...): takes the folder in, or leaves it out and says so where one of its packages
# is missing. GROUP is what scripts/install-dependencies.sh calls them.
function(zenk_optional_part folder group)
  foreach(package ${ARGN})
    find_package(${package} QUIET)
    if(NOT ${package}_FOUND)
      message(STATUS "Left out: ${folder}/, ${package} is missing (scripts/install-dependencies.sh ${group})")
      return()
    endif()
  endforeach()
  add_subdirectory(${folder})
endfunction()
