# Every source directory holds one library: its *.cc files, minus the tests
# (*_test.cc) and the program entry points (*_main.cc), which are built by the
# directory itself. Tests live beside the code they test and are gathered into
# one GoogleTest binary per directory.
#
#   zephlore_library(name dir PUBLIC <deps its headers expose>
#                             PRIVATE <deps only its .cc files use>)
#
# A library's users get its PUBLIC deps and nothing else: a layer that uses a
# library (its headers' include paths, its definitions) names it itself.
function(zephlore_library name dir)
  cmake_parse_arguments(PARSE_ARGV 2 deps "" "" "PUBLIC;PRIVATE")
  if(deps_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "zephlore_library(${name}): list deps after PUBLIC or PRIVATE")
  endif()
  file(GLOB srcs CONFIGURE_DEPENDS ${dir}/*.cc)
  list(FILTER srcs EXCLUDE REGEX "(_test|_main)\\.cc$")
  if(NOT srcs)
    # Headers only (names, inline code): everything it uses passes on.
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${name} INTERFACE ${deps_PUBLIC} ${deps_PRIVATE})
    return()
  endif()
  add_library(${name} STATIC ${srcs})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${deps_PUBLIC} PRIVATE ${deps_PRIVATE})
endfunction()

function(zephlore_tests name dir)
  file(GLOB srcs CONFIGURE_DEPENDS ${dir}/*_test.cc)
  if(NOT srcs)
    return()
  endif()
  add_executable(${name} ${srcs})
  target_link_libraries(${name} PRIVATE ${ARGN} zephlore_testing GTest::gtest GTest::gmock GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE
    ZEPHLORE_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
    ZEPHLORE_BINARY_DIR="${CMAKE_BINARY_DIR}")
  # Test code runs in moments; what it exercises keeps the build's own
  # optimisation. -O1 halves the compile time of a GoogleTest file.
  target_compile_options(${name} PRIVATE -O1)
  # Four test files to a translation unit: GoogleTest's headers are parsed a
  # quarter as often, which takes a fifth off the tests' build time (larger
  # batches gain nothing more and build less in parallel). Helpers in a
  # test file's anonymous namespace must therefore not share a name with
  # another file's.
  set_target_properties(${name} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 4)
  # Each test in its own process under ctest; the binary also passes when run
  # directly, all tests in one process (scripts/test.sh does both).
  # A directory whose tests share something only one may use at a time (the
  # helper allows one copy per user) names it in ZEPHLORE_TESTS_RESOURCE_LOCK.
  set(properties TIMEOUT 300)
  if(ZEPHLORE_TESTS_RESOURCE_LOCK)
    list(APPEND properties RESOURCE_LOCK ${ZEPHLORE_TESTS_RESOURCE_LOCK})
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES ${properties})
endfunction()
