# Debian packages: cmake --preset package && cmake --build --preset package && cpack --config build-package/CPackConfig.cmake
#
# Three of them: what a receiver needs at run time, what a host is built with, and the tools.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_PACKAGE_CONTACT "The maintainers <root@localhost>" CACHE STRING "Maintainer field of the packages")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The stand-in for the receiver's configuration library is looked for beside the library.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzenk-hbbtv-wsserver${PROJECT_VERSION_MAJOR})
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Shared library: App2App pairing, CSS-CII, CSS-TS, CSS-WC and diagnostic log.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# libwebsockets loads its libev plug-in by name at run time, where no tool finds it.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS libwebsockets-evlib-ev)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzenk-hbbtv-wsserver-dev)
set(CPACK_COMPONENT_DEV_DESCRIPTION "Headers, CMake package and pkg-config file to build a host with.")
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zenk-hbbtv-wsserver-tools)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
  "zenk_logctl turns the log of a running receiver up and down, zenk_wcprobe measures a wall-clock server.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)

include(CPack)
