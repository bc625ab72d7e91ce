# What a Linux user installs beside the programs: the systemd user units that
# run one pass after login and then every hour, the manual page, and the
# Debian package that carries everything.
#
# Include this at the end of the top-level CMakeLists.txt, after every other
# install() rule, so that the package holds them all.

set(PORVANE_PACKAGING_DIR ${PROJECT_SOURCE_DIR}/packaging)
# systemd's search path for units that the distribution ships for every user.
set(PORVANE_USER_UNIT_DIR lib/systemd/user)

# The service starts the program by its absolute path, and that path is
# settled only when installing: `cmake --install --prefix` may change it, and
# CPack installs with the prefix /usr under a staging DESTDIR. So the unit is
# written at install time from the prefix then in force, and installed like
# any other file (file(INSTALL) adds DESTDIR and records it in the manifest).
# The staging folder is named after the destination, so that installs to
# different places at the same time (a test beside CPack) cannot swap units.
install(CODE "
  set(CMAKE_INSTALL_FULL_BINDIR \"${CMAKE_INSTALL_BINDIR}\")
  if(NOT IS_ABSOLUTE \"\${CMAKE_INSTALL_FULL_BINDIR}\")
    set(CMAKE_INSTALL_FULL_BINDIR \"\${CMAKE_INSTALL_PREFIX}/\${CMAKE_INSTALL_FULL_BINDIR}\")
  endif()
  string(SHA1 porvane_destination \"\$ENV{DESTDIR}|\${CMAKE_INSTALL_PREFIX}\")
  set(porvane_staged \"${CMAKE_BINARY_DIR}/packaging/install-\${porvane_destination}\")
  configure_file(\"${PORVANE_PACKAGING_DIR}/porvane.service.in\"
                 \"\${porvane_staged}/porvane.service\" @ONLY)
  file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${PORVANE_USER_UNIT_DIR}\" TYPE FILE
       FILES \"\${porvane_staged}/porvane.service\")
  file(REMOVE_RECURSE \"\${porvane_staged}\")
  " COMPONENT integration)
install(FILES ${PORVANE_PACKAGING_DIR}/porvane.timer
        DESTINATION ${PORVANE_USER_UNIT_DIR} COMPONENT integration)
install(FILES ${PORVANE_PACKAGING_DIR}/porvane.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT integration)

# The Debian package: every component in one package, installed under /usr.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME porvane)
set(CPACK_PACKAGE_VENDOR "Tarvo")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "usage-log upload agent")
set(CPACK_PACKAGE_DESCRIPTION
    "Porvane delivers usage-log files from each user's log folder to a collection\n\
server, one HTTP POST per file, steered by the server's one-word reply.\n\
A systemd user timer runs one pass after login and then every hour.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Porvane maintainers <porvane@tarvo.example>")
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Library dependencies come from what the programs really link
# (dpkg-shlibdeps), so they follow the build instead of a list kept by hand.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Installed programs carry no debug information.
set(CPACK_STRIP_FILES ON)
# The timer needs a systemd user manager; the program itself does not.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "systemd")
include(CPack)
