# Installs the program and its files for a device. The stand-in receiver under tools/ is not installed.
include(GNUInstallDirs)
set(NAVTWINE_SYSTEMD_UNIT_DIR lib/systemd/system CACHE PATH "Where systemd looks for units, from the prefix")

configure_file(packaging/navtwine.service.in packaging/navtwine.service @ONLY)

install(TARGETS navtwine RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES ${PROJECT_BINARY_DIR}/packaging/navtwine.service DESTINATION ${NAVTWINE_SYSTEMD_UNIT_DIR})
install(FILES packaging/navtwine.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES packaging/navtwine.bash RENAME navtwine
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES packaging/navtwine.default RENAME navtwine
  DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/default PERMISSIONS OWNER_READ OWNER_WRITE)
