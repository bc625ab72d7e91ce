# Helpers shared by the component folders.
#
# The layers, each a static library that links exactly what it uses:
#   pv_agent    -> pv_upload, pv_settings, pv_lock, pv_support
#   pv_upload   -> pv_support          pv_settings -> pv_support
#   pv_lock     -> pv_support          pv_receiver -> pv_settings, pv_support
#   pv_support  -> system libraries only
# A component sees its own folder and the public folders of what it links,
# never the whole tree, so an include across layers that is not declared
# here fails to compile; an include that climbs out of its folder ("../")
# fails the build too, before anything of the component compiles.

# porvane_component(NAME SOURCES ... [INCLUDE dirs] [PRIVATE_INCLUDE dirs]
#                   [DEPENDS libs...] [PRIVATE_DEPENDS libs...])
# INCLUDE (default: the component's own folder) is what its users see.
# DEPENDS are passed on to users (their headers appear in ours);
# PRIVATE_DEPENDS are used by the sources alone.
function(porvane_component name)
  cmake_parse_arguments(ARG "" "" "SOURCES;INCLUDE;PRIVATE_INCLUDE;DEPENDS;PRIVATE_DEPENDS" ${ARGN})
  if(NOT ARG_INCLUDE)
    set(ARG_INCLUDE ${CMAKE_CURRENT_SOURCE_DIR})
  endif()
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${ARG_INCLUDE} PRIVATE ${ARG_PRIVATE_INCLUDE})
  target_link_libraries(${name} PUBLIC ${ARG_DEPENDS} PRIVATE ${ARG_PRIVATE_DEPENDS})
  add_custom_target(${name}_includes
    COMMAND sh ${PROJECT_SOURCE_DIR}/cmake/check_includes.sh ${CMAKE_CURRENT_SOURCE_DIR} ${ARG_INCLUDE}
    VERBATIM)
  add_dependencies(${name} ${name}_includes)
endfunction()

# porvane_test(NAME SOURCES ... [LINK libs...] [LABELS ...])
# A GoogleTest executable registered with CTest, one CTest entry per test.
# LINK names the components and libraries it needs; a test sees the same
# headers its components show their users, plus the test helpers.
function(porvane_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK;LABELS" ${ARGN})
  if(NOT PORVANE_TESTS)
    return()
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LINK} pv_testsupport GTest::gtest GTest::gmock GTest::gtest_main
                                        Threads::Threads)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PORVANE_TEST_OUTPUT_DIRECTORY})
  target_compile_definitions(${name} PRIVATE
    PORVANE_BINARY_DIR="${CMAKE_BINARY_DIR}"
    PORVANE_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  set(properties TIMEOUT 300)
  if(ARG_LABELS)
    list(APPEND properties LABELS "${ARG_LABELS}")
  endif()
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
    PROPERTIES ${properties})
endfunction()
