# What a Linux user installs beside the programs: the systemd user units that
# run one pass after login and then every hour, the manual pages, the
# documents Debian expects of every package, and the Debian package that
# carries everything.
#
# Include this at the end of the top-level CMakeLists.txt, after every other
# install() rule, so that the package holds them all.

set(PORVANE_PACKAGING_DIR ${PROJECT_SOURCE_DIR}/packaging)
# systemd's search path for units that the distribution ships for every user.
set(PORVANE_USER_UNIT_DIR lib/systemd/user)
# Debian keeps a package's documents in /usr/share/doc/<package>: the
# copyright file, the changelog, and the guide to writing a receiver.
set(PORVANE_DOC_DIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/porvane)
set(PORVANE_MAN_PAGES porvane porvane-receiver porvane-unlock)

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

# Manual pages and the changelog are installed compressed, as Debian wants
# them, with gzip -9n: no file name or time stamp inside, so the same source
# always gives the same bytes.
find_program(PORVANE_GZIP gzip REQUIRED)
# porvane_compress(SOURCE OUT_VAR): a build step that writes SOURCE's
# compressed copy; OUT_VAR receives its path.
function(porvane_compress source out_var)
  get_filename_component(name ${source} NAME)
  set(staged ${CMAKE_BINARY_DIR}/packaging/compressed/${name})
  add_custom_command(OUTPUT ${staged}.gz
                     COMMAND ${CMAKE_COMMAND} -E copy ${source} ${staged}
                     COMMAND ${PORVANE_GZIP} -9nf ${staged}
                     DEPENDS ${source} VERBATIM)
  set(${out_var} ${staged}.gz PARENT_SCOPE)
endfunction()
set(porvane_man_pages)
foreach(page IN LISTS PORVANE_MAN_PAGES)
  porvane_compress(${PORVANE_PACKAGING_DIR}/${page}.1 compressed)
  list(APPEND porvane_man_pages ${compressed})
endforeach()
porvane_compress(${PORVANE_PACKAGING_DIR}/changelog.Debian porvane_changelog)
add_custom_target(porvane_compressed_docs ALL DEPENDS ${porvane_man_pages} ${porvane_changelog})

install(FILES ${porvane_man_pages}
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT integration)
install(FILES ${PORVANE_PACKAGING_DIR}/copyright ${porvane_changelog} ${PROJECT_SOURCE_DIR}/docs/receiver.md
        DESTINATION ${PORVANE_DOC_DIR} COMPONENT integration)
# What lintian reports that does not apply to this package, and why.
install(FILES ${PORVANE_PACKAGING_DIR}/porvane.lintian-overrides
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides RENAME porvane COMPONENT integration)

# The package's version is the project's, with the Debian revision of the
# changelog's latest entry ("porvane (1.0.0-1) ..."): the two must agree, or
# the package would describe another release than the one it holds.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PORVANE_PACKAGING_DIR}/changelog.Debian)
file(STRINGS ${PORVANE_PACKAGING_DIR}/changelog.Debian porvane_changelog_head LIMIT_COUNT 1)
if(NOT porvane_changelog_head MATCHES "^porvane \\(([^)-]+)-([^)-]+)\\) ")
  message(FATAL_ERROR "packaging/changelog.Debian must begin with 'porvane (VERSION-REVISION) ...', "
                      "not '${porvane_changelog_head}'")
endif()
if(NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "packaging/changelog.Debian's latest entry is for ${CMAKE_MATCH_1}, "
                      "the project is version ${PROJECT_VERSION}: add an entry for it")
endif()
set(PORVANE_DEBIAN_REVISION ${CMAKE_MATCH_2})

# The Debian package: every component in one package, installed under /usr.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME porvane)
set(CPACK_PACKAGE_VENDOR "Tarvo")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${PORVANE_DEBIAN_REVISION})
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
