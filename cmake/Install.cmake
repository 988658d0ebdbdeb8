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
install(FILES packaging/navtwine.default RENAME navtwine
  DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/default PERMISSIONS OWNER_READ OWNER_WRITE)
