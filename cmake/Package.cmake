# CPack: one .deb per install component, for Debian-based devices:
# quillmorwd (runtime) and quillmorwd-dev (development).
#   cmake --build <dir> --target package   (or: cd <dir> && cpack -G DEB)
# Configure with -DCMAKE_INSTALL_PREFIX=/usr, so that the configuration and
# the SysV script land in /etc.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quillmorwd)
set(CPACK_PACKAGE_VENDOR "Quillmor")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Supervising watchdog of the Quillmor security agent")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Quillmor watchdog developers")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME quillmorwd)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# Files under /etc are kept across upgrades when the administrator changed them.
set(QWD_CONFFILES ${CMAKE_BINARY_DIR}/deb-runtime/conffiles)
set(QWD_CONFFILE_DIR ${QWD_SYSCONF_DIR})
if(NOT IS_ABSOLUTE ${QWD_CONFFILE_DIR})
  set(QWD_CONFFILE_DIR ${CMAKE_INSTALL_PREFIX}/${QWD_CONFFILE_DIR})
endif()
set(QWD_CONFFILE_LIST ${QWD_CONFFILE_DIR}/quillmor/watchdog.cfg.example)
if(QWD_INSTALL_INIT)
  list(APPEND QWD_CONFFILE_LIST ${QWD_CONFFILE_DIR}/init.d/quillmorwd)
endif()
list(JOIN QWD_CONFFILE_LIST "\n" QWD_CONFFILE_TEXT)
file(WRITE ${QWD_CONFFILES} "${QWD_CONFFILE_TEXT}\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${QWD_CONFFILES})

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME quillmorwd-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
include(CPack)
