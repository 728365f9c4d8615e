# What `make install` puts where: the two programs in sbin, the page files
# and the example configuration in share/korvane, the manual pages, the
# systemd unit, and a first configuration that is never written over.
include(GNUInstallDirs)

set(KORV_CONFIG_FILE "/etc/korvane.ini" CACHE STRING "the configuration the server reads by default")
set(KORV_STATE_DIR "/var/lib/korvane" CACHE STRING "the server's home in the first configuration")
set(KORV_SYSTEMD_DIR "" CACHE STRING "where the systemd unit goes (empty: lib/systemd/system under the prefix)")
set(KORV_SHARE "${CMAKE_INSTALL_DATADIR}/korvane")

if(TARGET korvane)
  install(TARGETS korvane DESTINATION ${CMAKE_INSTALL_SBINDIR})
endif()
if(TARGET omauth)
  install(TARGETS omauth DESTINATION ${CMAKE_INSTALL_SBINDIR})
endif()
install(DIRECTORY ${CMAKE_SOURCE_DIR}/web/ DESTINATION ${KORV_SHARE}/web)
install(FILES ${CMAKE_SOURCE_DIR}/config/korvane.ini DESTINATION ${KORV_SHARE} RENAME korvane.ini.example)
install(FILES ${CMAKE_SOURCE_DIR}/doc/korvane.8 ${CMAKE_SOURCE_DIR}/doc/omauth.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
# The settings' manual page comes from the settings table when that generator
# is part of the build; with it come the manual's plain HTML pages.
if(TARGET korvane_man)
  install(FILES ${CMAKE_BINARY_DIR}/doc/korvane.ini.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
  install(DIRECTORY ${CMAKE_BINARY_DIR}/doc/manual/ DESTINATION ${KORV_SHARE}/manual OPTIONAL)
endif()

# The unit names the installed program, so it is written at install time,
# when the prefix is known (`cmake --install --prefix` may change it).
install(CODE "
  set(KORV_SBIN \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}\")
  set(KORV_CONFIG_FILE \"${KORV_CONFIG_FILE}\")
  set(_dir \"${KORV_SYSTEMD_DIR}\")
  if(NOT _dir)
    set(_dir \"\${CMAKE_INSTALL_PREFIX}/lib/systemd/system\")
  endif()
  set(_unit \"\$ENV{DESTDIR}\${_dir}/korvane.service\")
  message(STATUS \"Installing: \${_unit}\")
  configure_file(\"${CMAKE_SOURCE_DIR}/config/korvane.service.in\" \"\${_unit}\" @ONLY)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${_unit}\")
")

# The first configuration and the home: made when missing, never replaced, so
# that a reinstall keeps what the administrator set. The home gets the page
# files through a link into share/korvane.
install(CODE "
  set(_etc \"\$ENV{DESTDIR}${KORV_CONFIG_FILE}\")
  if(NOT EXISTS \"\${_etc}\")
    get_filename_component(_etcdir \"\${_etc}\" DIRECTORY)
    file(MAKE_DIRECTORY \"\${_etcdir}\")
    file(READ \"${CMAKE_SOURCE_DIR}/config/korvane.ini\" _ini)
    string(REPLACE \"home \\\"/var/lib/korvane\\\"\" \"home \\\"${KORV_STATE_DIR}\\\"\" _ini \"\${_ini}\")
    file(WRITE \"\${_etc}\" \"\${_ini}\")
    file(CHMOD \"\${_etc}\" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    message(STATUS \"Installing: \${_etc}\")
  else()
    message(STATUS \"Kept: \${_etc}\")
  endif()
  set(_home \"\$ENV{DESTDIR}${KORV_STATE_DIR}\")
  file(MAKE_DIRECTORY \"\${_home}\")
  if(NOT EXISTS \"\${_home}/web\" AND NOT IS_SYMLINK \"\${_home}/web\")
    file(CREATE_LINK \"${CMAKE_INSTALL_FULL_DATADIR}/korvane/web\" \"\${_home}/web\" SYMBOLIC)
  endif()
")
