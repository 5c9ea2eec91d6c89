# The Debian package, built by CPack: `cmake --build <dir> --target package` or `cpack` in <dir>.
# The package installs into the configured prefix, because the programs carry their libexec and
# data folders compiled in: configure with -DCMAKE_INSTALL_PREFIX=/usr for a package to install.

if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  message(STATUS "Debian package: prefix is ${CMAKE_INSTALL_PREFIX}; configure with "
                 "-DCMAKE_INSTALL_PREFIX=/usr for a package to install on a system")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME pelmora)
set(CPACK_PACKAGE_VENDOR "Tandrel")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES TRUE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Pelmora developers <pelmora@tandrel.net>")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "processor monitor with process limiting and processor hotplug\n"
    "Pelmora samples the whole machine once a second (per-processor load and\n"
    "frequency, memory, disks, network, graphics cards, load average, processes,\n"
    "fans and power) and draws every metric as a scrolling graph. It keeps a live\n"
    "table of all processes and can hold any of them to a share of one processor\n"
    "or change its priority. Through a small root helper, reached on a socket that\n"
    "systemd opens, an administrator can switch processors and their hardware\n"
    "threads on and off and have that applied again at every boot.")
string(REPLACE ";" "" CPACK_DEBIAN_PACKAGE_DESCRIPTION "${CPACK_DEBIAN_PACKAGE_DESCRIPTION}")
# Library dependencies come from dpkg-shlibdeps; polkit is needed only for authorisation by
# someone other than root, so it is recommended rather than required.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS polkitd)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_SOURCE_DIR}/cmake/debian/postinst
    ${CMAKE_SOURCE_DIR}/cmake/debian/prerm
    ${CMAKE_SOURCE_DIR}/cmake/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)

include(CPack)
