# Where a Linux desktop looks for each of Pelmora's files. The programs install themselves (src/*);
# this file places what the desktop, systemd, polkit, man and the documentation folder read.
# Every destination is relative to the prefix, so that a package build (prefix /usr) and a local
# `cmake --install` (prefix /usr/local) give the same tree under their prefix.

set(PELMORA_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/pelmora)

# The menu entry, its AppStream description, and the application and tray icons: only with the
# application they start.
if(PELMORA_HAVE_GUI)
  install(FILES ${PELMORA_SOURCE_RESOURCES}/net.tandrel.pelmora.desktop
          DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
  install(FILES ${PELMORA_SOURCE_RESOURCES}/net.tandrel.pelmora.metainfo.xml
          DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)
  install(FILES ${PELMORA_SOURCE_RESOURCES}/icons/net.tandrel.pelmora.svg
          DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
  install(FILES ${PELMORA_SOURCE_RESOURCES}/icons/net.tandrel.pelmora-symbolic.svg
          DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/symbolic/apps)
endif()

# The energy tables: the application's own table, and the per-board folder (kept even when empty,
# as it is where a machine's own table goes).
install(FILES ${PELMORA_SOURCE_RESOURCES}/pmenergy.json DESTINATION ${CMAKE_INSTALL_DATADIR}/pelmora)
if(IS_DIRECTORY ${PELMORA_SOURCE_RESOURCES}/pmenergy)
  install(DIRECTORY ${PELMORA_SOURCE_RESOURCES}/pmenergy DESTINATION ${CMAKE_INSTALL_DATADIR}/pelmora
          FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
else()
  install(DIRECTORY DESTINATION ${CMAKE_INSTALL_DATADIR}/pelmora/pmenergy)
endif()

# The help the application opens, when it has been written. The glob makes a build notice a new
# help folder without a manual reconfigure.
file(GLOB_RECURSE pelmora_help_files CONFIGURE_DEPENDS ${PELMORA_SOURCE_RESOURCES}/help/*)
if(IS_DIRECTORY ${PELMORA_SOURCE_RESOURCES}/help)
  install(DIRECTORY ${PELMORA_SOURCE_RESOURCES}/help DESTINATION ${CMAKE_INSTALL_DATADIR}/pelmora
          FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
          DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                WORLD_READ WORLD_EXECUTE)
endif()

# Man pages and the Debian changelog, compressed as Debian wants them (-n: no name or time stamp,
# so two builds give the same bytes).
set(pelmora_gz_sources
    ${CMAKE_SOURCE_DIR}/docs/man/pelmora.1
    ${CMAKE_SOURCE_DIR}/docs/man/pelmora-app.1
    ${CMAKE_SOURCE_DIR}/docs/man/pelmora-helper.8
    ${CMAKE_SOURCE_DIR}/cmake/debian/changelog)
set(pelmora_gz_outputs)
foreach(source IN LISTS pelmora_gz_sources)
  get_filename_component(name ${source} NAME)
  set(output ${CMAKE_BINARY_DIR}/gz/${name}.gz)
  add_custom_command(OUTPUT ${output}
                     COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/gz
                     COMMAND gzip -9nc ${source} > ${output}
                     DEPENDS ${source} VERBATIM)
  list(APPEND pelmora_gz_outputs ${output})
endforeach()
add_custom_target(pelmora_compressed_docs ALL DEPENDS ${pelmora_gz_outputs})
install(FILES ${CMAKE_BINARY_DIR}/gz/pelmora.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
if(PELMORA_HAVE_GUI)
  install(FILES ${CMAKE_BINARY_DIR}/gz/pelmora-app.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()
install(FILES ${CMAKE_BINARY_DIR}/gz/pelmora-helper.8.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${CMAKE_SOURCE_DIR}/cmake/debian/copyright DESTINATION ${PELMORA_DOC_DIR})
install(FILES ${CMAKE_BINARY_DIR}/gz/changelog.gz DESTINATION ${PELMORA_DOC_DIR})
