# velmora_test(NAME SOURCES... [LIBRARIES ...]): one GoogleTest program over the library's insides, each of its cases
# a ctest of its own and so a process of its own: global state never leaks from one case into the next.
include(VelmoraGoogleTest)
include(GoogleTest)

function(velmora_test name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_compile_options(${name} PRIVATE -O0)  # the suite's own code: built often, run once
    target_link_libraries(${name} PRIVATE velmora_internal velmora_testsupport ${ARG_LIBRARIES} GTest::gtest GTest::gtest_main)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 300)
endfunction()
