# What `cmake --install` puts where: the watchdog in sbin, the log viewer in
# bin, the agent-side client library with its headers and an exported package
# (find_package(QuillmorWDClient) gives quillmorwd::qwd_wd_client), and an
# example watchdog.cfg listing every key with its default.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(QWD_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/quillmorwd)
set(QWD_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/QuillmorWDClient)

install(TARGETS quillmorWD RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS qwd-log RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# The client and the static libraries it needs at link time. Their include
# directory is the source tree, which only holds while building here.
set_target_properties(qwd_wd_client qwd_agent_infra qwd_common PROPERTIES
                      INTERFACE_INCLUDE_DIRECTORIES $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}>)
install(TARGETS qwd_wd_client qwd_agent_infra qwd_common
        EXPORT QuillmorWDClientTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${QWD_INCLUDE_DIR})
# Headers keep their tree paths, so a program includes them the same way in
# and out of this tree.
install(FILES ${CMAKE_SOURCE_DIR}/agent/src/infra/ipc/client/WatchdogClient.h
        DESTINATION ${QWD_INCLUDE_DIR}/agent/src/infra/ipc/client)
install(FILES ${CMAKE_SOURCE_DIR}/common/StatusCode.h ${CMAKE_SOURCE_DIR}/common/LogComponent.h
        DESTINATION ${QWD_INCLUDE_DIR}/common)

install(EXPORT QuillmorWDClientTargets NAMESPACE quillmorwd:: DESTINATION ${QWD_PACKAGE_DIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/QuillmorWDClientConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/QuillmorWDClientConfig.cmake
                              INSTALL_DESTINATION ${QWD_PACKAGE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/QuillmorWDClientConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/QuillmorWDClientConfig.cmake
              ${CMAKE_BINARY_DIR}/QuillmorWDClientConfigVersion.cmake
        DESTINATION ${QWD_PACKAGE_DIR})

install(FILES ${CMAKE_SOURCE_DIR}/tools/watchdog.cfg.example
        DESTINATION ${CMAKE_INSTALL_DATADIR}/quillmorwd RENAME watchdog.cfg)
