# What `cmake --install` puts where, in two components:
#   runtime: the watchdog in sbin, the log viewer in bin, the example
#     configuration as <sysconfdir>/quillmor/watchdog.cfg.example (every key at
#     its default; the live file, watchdog.cfg, is the integrator's), and the
#     init files: the SysV script as <sysconfdir>/init.d/quillmorwd, the
#     systemd unit in <prefix>/lib/systemd/system;
#   development: the agent-side client library and the static libraries it
#     needs, its headers and an exported CMake package
#     (find_package(QuillmorWDClient) gives quillmorwd::<target>).
# <sysconfdir> is /etc with the prefix /usr, as firmware builds and the .deb
# use, else <prefix>/etc. The init files name /usr/sbin/quillmorWD and
# /etc/quillmor/watchdog.cfg.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# ---- The client SDK: its targets and its headers (paths in the tree). -------
# Kept here only; a program includes the headers by these same paths.
set(QWD_SDK_TARGETS qwd_client qwd_ipc qwd_common)
# The public headers and what they include.
set(QWD_SDK_HEADERS client/WatchdogClient.h client/SystemExecGW.h ipc/WatchdogProtocol.h
                    common/StatusCode.h common/LogComponent.h common/Log.h common/Seam.h)
# ------------------------------------------------------------------------------

option(QWD_INSTALL_INIT "Install the SysV init script and the systemd unit" ON)

set(QWD_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/quillmorwd)
set(QWD_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/QuillmorWDClient)
# Under the prefix /usr the configuration belongs in /etc; under any other in
# <prefix>/etc, which follows `cmake --install --prefix`.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(QWD_SYSCONF_DIR /etc)
else()
  set(QWD_SYSCONF_DIR ${CMAKE_INSTALL_SYSCONFDIR})
endif()

install(TARGETS quillmorWD RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT runtime)
install(TARGETS qwd-log RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(FILES ${CMAKE_SOURCE_DIR}/tools/watchdog.cfg.example
        DESTINATION ${QWD_SYSCONF_DIR}/quillmor COMPONENT runtime)
if(QWD_INSTALL_INIT)
  install(PROGRAMS ${CMAKE_SOURCE_DIR}/packaging/sysv/S50quillmorwd
          DESTINATION ${QWD_SYSCONF_DIR}/init.d RENAME quillmorwd COMPONENT runtime)
  install(FILES ${CMAKE_SOURCE_DIR}/packaging/systemd/quillmorwd.service
          DESTINATION lib/systemd/system COMPONENT runtime)
endif()

# The include directory of the SDK's targets is the source tree, which only
# holds while building here.
set_target_properties(${QWD_SDK_TARGETS} PROPERTIES
                      INTERFACE_INCLUDE_DIRECTORIES $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}>)
install(TARGETS ${QWD_SDK_TARGETS} EXPORT QuillmorWDClientTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
        INCLUDES DESTINATION ${QWD_INCLUDE_DIR})
foreach(header ${QWD_SDK_HEADERS})
  get_filename_component(dir ${header} DIRECTORY)
  install(FILES ${CMAKE_SOURCE_DIR}/${header} DESTINATION ${QWD_INCLUDE_DIR}/${dir}
          COMPONENT development)
endforeach()

install(EXPORT QuillmorWDClientTargets NAMESPACE quillmorwd:: DESTINATION ${QWD_PACKAGE_DIR}
        COMPONENT development)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/QuillmorWDClientConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/QuillmorWDClientConfig.cmake
                              INSTALL_DESTINATION ${QWD_PACKAGE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/QuillmorWDClientConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/QuillmorWDClientConfig.cmake
              ${CMAKE_BINARY_DIR}/QuillmorWDClientConfigVersion.cmake
        DESTINATION ${QWD_PACKAGE_DIR} COMPONENT development)
