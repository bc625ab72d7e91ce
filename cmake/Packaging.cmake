# What a Linux user installs beside the programs: the systemd user units that
# run one pass after login and then every hour, the manual pages, the
# documents Debian expects of every package, and the Debian packages:
#   porvane       the programs, units, manual pages and guides (install
#                 components "Unspecified" and "integration")
#   libporvane1   the shared library (component "library", library/)
#   porvane-dev   its headers, link, porvane.pc and CMake package
#                 (component "development", library/)
# The programs link the static components, so porvane needs neither
# libporvane1 nor what only the library's desktop part uses.
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
              ${PROJECT_SOURCE_DIR}/docs/host.md
        DESTINATION ${PORVANE_DOC_DIR} COMPONENT integration)
# What lintian reports that does not apply to this package, and why.
install(FILES ${PORVANE_PACKAGING_DIR}/porvane.lintian-overrides
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides RENAME porvane COMPONENT integration)
# Every package carries the copyright, the changelog and the overrides
# (named for it) in its own folders, as Debian wants of each.
file(READ ${PORVANE_PACKAGING_DIR}/porvane.lintian-overrides porvane_overrides)
foreach(package_component IN ITEMS "libporvane1;library" "porvane-dev;development")
  list(GET package_component 0 package)
  list(GET package_component 1 component)
  install(FILES ${PORVANE_PACKAGING_DIR}/copyright ${porvane_changelog}
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
  string(REGEX REPLACE "(^|\n)porvane:" "\\1${package}:" package_overrides "${porvane_overrides}")
  file(WRITE ${CMAKE_BINARY_DIR}/packaging/overrides/${package} "${package_overrides}")
  install(FILES ${CMAKE_BINARY_DIR}/packaging/overrides/${package}
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides COMPONENT ${component})
endforeach()

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

# The Debian packages, installed under /usr, one per group of components.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME porvane)
set(CPACK_PACKAGE_VENDOR "Tarvo")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${PORVANE_DEBIAN_REVISION})
set(porvane_deb_version ${PROJECT_VERSION}-${PORVANE_DEBIAN_REVISION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Porvane maintainers <porvane@tarvo.example>")
# All three come from one source, whose changelog each carries.
set(CPACK_DEBIAN_PACKAGE_SOURCE porvane)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Library dependencies come from what the files really link
# (dpkg-shlibdeps), so they follow the build instead of a list kept by hand.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Installed programs and the library carry no debug information.
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL Unspecified integration library development)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)

set(CPACK_DEBIAN_AGENT_PACKAGE_NAME porvane)
set(CPACK_DEBIAN_AGENT_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_AGENT_DESCRIPTION "usage-log upload agent
Porvane delivers usage-log files from each user's log folder to a collection
server, one HTTP POST per file, steered by the server's one-word reply.
A systemd user timer runs one pass after login and then every hour.")
# The timer needs a systemd user manager; the program itself does not.
set(CPACK_DEBIAN_AGENT_PACKAGE_SUGGESTS "systemd")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libporvane1)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
# CPack's own handling of a shared library writes postinst and postrm
# scripts that call ldconfig, which Debian has replaced by a trigger. So the
# library's package gets its control files from here: the trigger, and the
# shlibs file that makes what links the library depend on libporvane1. Its
# Depends still come from what the library really links: dpkg-shlibdeps
# runs on it when cpack starts (cmake/DebLibraryDepends.cmake).
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS OFF)
set(porvane_library_control ${CMAKE_BINARY_DIR}/packaging/libporvane1)
file(WRITE ${porvane_library_control}/triggers "activate-noawait ldconfig\n")
file(WRITE ${porvane_library_control}/shlibs
     "libporvane ${PROJECT_VERSION_MAJOR} libporvane1 (>= ${porvane_deb_version})\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${porvane_library_control}/triggers ${porvane_library_control}/shlibs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PORVANE_LIBRARY_FILE
    ${CMAKE_BINARY_DIR}/${CMAKE_INSTALL_LIBDIR}/libporvane.so.${PROJECT_VERSION})
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/DebLibraryDepends.cmake)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "library for hosts and installers of Porvane
Porvane delivers usage-log files from each user's log folder to a collection
server. This library tells a host application where to write its logs, reads
Porvane's settings files, and gives installers and companion tools login
items, application launching, restart requests and file-system helpers.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME porvane-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libporvane1 (= ${porvane_deb_version})")
# A host built against the library starts the agent of the porvane package.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_RECOMMENDS "porvane")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "development files for libporvane
Porvane delivers usage-log files from each user's log folder to a collection
server. This package holds the headers of libporvane under porvane/, the
link to the library, porvane.pc for pkg-config and the CMake package
Porvane (find_package(Porvane) gives Porvane::porvane).")

include(CPack)
cpack_add_component_group(agent)
cpack_add_component(Unspecified GROUP agent)
cpack_add_component(integration GROUP agent)
cpack_add_component(library)
cpack_add_component(development)
