# Installs the program and its files for a device. The stand-in receiver under tools/ is not installed.
include(GNUInstallDirs)
set(NAVTWINE_SYSTEMD_UNIT_DIR lib/systemd/system CACHE PATH "Where systemd looks for units, from the prefix")

# The service, and the template of its instances, each with options of its own.
set(NAVTWINE_OPTIONS_FILE navtwine)
configure_file(packaging/navtwine.service.in packaging/navtwine.service @ONLY)
set(NAVTWINE_OPTIONS_FILE navtwine-%i)
configure_file(packaging/navtwine.service.in packaging/navtwine@.service @ONLY)

install(TARGETS navtwine RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES ${PROJECT_BINARY_DIR}/packaging/navtwine.service ${PROJECT_BINARY_DIR}/packaging/navtwine@.service
  DESTINATION ${NAVTWINE_SYSTEMD_UNIT_DIR})
install(FILES packaging/navtwine.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES packaging/navtwine.bash RENAME navtwine
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(DIRECTORY packaging/examples DESTINATION ${CMAKE_INSTALL_DOCDIR})

# The options are the owner's: a file that is there is kept. The prefix /usr has its options in /etc, as the unit says;
# any other prefix, one given at the installation (cmake --install --prefix) too, has them below itself.
install(CODE "
  set(etc \"${CMAKE_INSTALL_FULL_SYSCONFDIR}\")
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL \"${CMAKE_INSTALL_PREFIX}\")
    cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX NORMALIZE OUTPUT_VARIABLE etc)
    cmake_path(APPEND etc \"${CMAKE_INSTALL_SYSCONFDIR}\")
  endif()
  if(NOT EXISTS \"\$ENV{DESTDIR}\${etc}/default/navtwine\")
    file(INSTALL \"${PROJECT_SOURCE_DIR}/packaging/navtwine.default\" RENAME navtwine
      DESTINATION \"\${etc}/default\" PERMISSIONS OWNER_READ OWNER_WRITE)
  endif()")
