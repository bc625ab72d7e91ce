# Read by cpack before it makes packages (CPACK_PROJECT_CONFIG_FILE): sets
# libporvane1's Depends to what dpkg-shlibdeps finds the library links, as
# CPack does for the other packages. dpkg-shlibdeps wants a debian/control
# beside it, so it runs in a scratch folder that has one.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
  return()
endif()
set(porvane_shlibdeps_dir ${CPACK_TOPLEVEL_DIRECTORY}/porvane-shlibdeps)
if(NOT CPACK_TOPLEVEL_DIRECTORY)
  set(porvane_shlibdeps_dir ${CPACK_PACKAGE_DIRECTORY}/porvane-shlibdeps)
endif()
file(WRITE ${porvane_shlibdeps_dir}/debian/control "Source: porvane\n\nPackage: libporvane1\nArchitecture: any\n")
execute_process(
  COMMAND dpkg-shlibdeps -O "${CPACK_PORVANE_LIBRARY_FILE}"
  WORKING_DIRECTORY ${porvane_shlibdeps_dir}
  OUTPUT_VARIABLE porvane_shlibdeps
  ERROR_VARIABLE porvane_shlibdeps_error
  RESULT_VARIABLE porvane_shlibdeps_status)
file(REMOVE_RECURSE ${porvane_shlibdeps_dir})
if(NOT porvane_shlibdeps_status EQUAL 0 OR NOT porvane_shlibdeps MATCHES "shlibs:Depends=([^\n]*)")
  message(FATAL_ERROR "dpkg-shlibdeps on ${CPACK_PORVANE_LIBRARY_FILE} failed: ${porvane_shlibdeps_error}")
endif()
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS "${CMAKE_MATCH_1}")
