# What `cmake --install` puts where: the watchdog in sbin, the log viewer in
# bin, the agent-side client library with its headers and an exported package
# (find_package(QuillmorWDClient) gives quillmorwd::qwd_client), and an
# example watchdog.cfg listing every key with its default.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(QWD_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/quillmorwd)
set(QWD_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/QuillmorWDClient)

install(TARGETS quillmorWD RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS qwd-log RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# The client and the static libraries it needs at link time. Their include
# directory is the source tree, which only holds while building here.
set(QWD_SDK_TARGETS qwd_client qwd_ipc qwd_common)
set_target_properties(${QWD_SDK_TARGETS} PROPERTIES
                      INTERFACE_INCLUDE_DIRECTORIES $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}>)
install(TARGETS ${QWD_SDK_TARGETS}
        EXPORT QuillmorWDClientTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${QWD_INCLUDE_DIR})
# Headers keep their tree paths, so a program includes them the same way in
# and out of this tree. The SDK's public headers and what they include:
set(QWD_SDK_HEADERS client/WatchdogClient.h client/SystemExecGW.h ipc/WatchdogProtocol.h
    common/StatusCode.h common/LogComponent.h common/Log.h common/Seam.h)
foreach(header ${QWD_SDK_HEADERS})
  get_filename_component(dir ${header} DIRECTORY)
  install(FILES ${CMAKE_SOURCE_DIR}/${header} DESTINATION ${QWD_INCLUDE_DIR}/${dir})
endforeach()

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
