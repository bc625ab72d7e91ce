# Helpers shared by the component folders.

set(PORVANE_COMPONENTS "" CACHE INTERNAL "")

# porvane_component(NAME SOURCES ... [DEPENDS libs...])
# Declares an object library for one component of porvane_core. DEPENDS lists
# what its code needs (other components' objects are linked by the users).
function(porvane_component name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  add_library(${name} OBJECT ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_DEPENDS})
  set(PORVANE_COMPONENTS ${PORVANE_COMPONENTS} ${name} CACHE INTERNAL "")
endfunction()

# porvane_test(NAME SOURCES ... [LINK libs...] [LABELS ...] [RESOURCE_LOCK name])
# A GoogleTest executable registered with CTest, one CTest entry per test.
# LINK names the components (object libraries) and libraries it needs;
# RESOURCE_LOCK keeps its tests from running beside others holding the same
# machine-wide resource (the agent's lock) under ctest -j.
function(porvane_test name)
  cmake_parse_arguments(ARG "" "RESOURCE_LOCK" "SOURCES;LINK;LABELS" ${ARGN})
  if(NOT PORVANE_TESTS)
    return()
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE ${ARG_LINK} GTest::gtest GTest::gmock GTest::gtest_main Threads::Threads)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PORVANE_TEST_OUTPUT_DIRECTORY})
  target_compile_definitions(${name} PRIVATE
    PORVANE_BINARY_DIR="${CMAKE_BINARY_DIR}"
    PORVANE_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  # An empty value would shift the property pairs: pass only those given.
  set(properties TIMEOUT 300)
  if(ARG_LABELS)
    list(APPEND properties LABELS "${ARG_LABELS}")
  endif()
  if(ARG_RESOURCE_LOCK)
    list(APPEND properties RESOURCE_LOCK "${ARG_RESOURCE_LOCK}")
  endif()
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
    PROPERTIES ${properties})
endfunction()
