# Headers, CMake package and pkg-config file of the library. Its targets install themselves where they are made.
include(CMakePackageConfigHelpers)

set(zenk_header_dir ${CMAKE_INSTALL_INCLUDEDIR}/zenk_hbbtv_wsserver)
set(zenk_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zenk_hbbtv_wsserver)

# What a host includes, and what that includes; in folders, as in the source.
foreach(header
    log/zenk_export.h
    log/zenk_log.h
    platform/thread_annotations.h
    wsserver/css_client_list.h
    wsserver/media_sync_server.h
    wsserver/observer_list.h
    wsserver/wall_clock.h
    wsserver/websocket_service.h
    wsserver/zenk_dvbCss.h)
  cmake_path(GET header PARENT_PATH folder)
  install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${zenk_header_dir}/${folder} COMPONENT dev)
endforeach()

install(EXPORT zenk_hbbtv_wsserverTargets NAMESPACE zenk:: DESTINATION ${zenk_package_dir} COMPONENT dev)
configure_package_config_file(cmake/zenk_hbbtv_wsserverConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zenk_hbbtv_wsserverConfig.cmake
  INSTALL_DESTINATION ${zenk_package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zenk_hbbtv_wsserverConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/zenk_hbbtv_wsserverConfig.cmake
  ${PROJECT_BINARY_DIR}/zenk_hbbtv_wsserverConfigVersion.cmake
  DESTINATION ${zenk_package_dir} COMPONENT dev)

# The prefix is told from where the file lies, so that the installed tree can be moved.
file(RELATIVE_PATH zenk_pc_to_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/zenk_hbbtv_wsserver.pc.in ${PROJECT_BINARY_DIR}/zenk_hbbtv_wsserver.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zenk_hbbtv_wsserver.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
