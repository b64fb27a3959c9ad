# The tests of the proxy manager client. Each program runs as one test, on private buses of its own.
add_library(proxy-test-support STATIC support/proxy_log.cpp support/proxy_bus.cpp)
target_include_directories(proxy-test-support PUBLIC support)
target_link_libraries(proxy-test-support PUBLIC PkgConfig::DBUSCXX GTest::gtest GTest::gtest_main Threads::Threads)

function(add_proxy_test name)
    add_executable(${name} ${ARGN})
    target_link_libraries(${name} PRIVATE proxy-test-support)
    # The log of the tests must be found by the library.
    set_target_properties(${name} PROPERTIES ENABLE_EXPORTS ON)
    add_test(NAME ${name} COMMAND ${launcher} $<TARGET_FILE:${name}>)
    set_tests_properties(${name} PROPERTIES TIMEOUT 900
        ENVIRONMENT "TSAN_OPTIONS=suppressions=${CMAKE_CURRENT_SOURCE_DIR}/tsan.supp;\
LSAN_OPTIONS=suppressions=${CMAKE_CURRENT_SOURCE_DIR}/lsan.supp;\
VALGRIND_OPTS=--suppressions=${CMAKE_CURRENT_SOURCE_DIR}/proxy-valgrind.supp")
endfunction()

add_proxy_test(proxy-unit-tests unit/proxy_unit_test.cpp)
target_link_libraries(proxy-unit-tests PRIVATE proxymanager-objects)

# Plain C programs; the second does not link the library.
add_executable(proxy-program integration/proxy_program.c)
target_link_libraries(proxy-program PRIVATE atls)
add_executable(proxy-unload integration/proxy_unload.c)
target_include_directories(proxy-unload PRIVATE ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(proxy-unload PRIVATE ${CMAKE_DL_LIBS})

add_proxy_test(proxy-integration-tests integration/proxy_client_test.cpp integration/proxy_faults_test.cpp
                                       integration/proxy_life_test.cpp)
target_link_libraries(proxy-integration-tests PRIVATE atls)
target_compile_definitions(proxy-integration-tests PRIVATE PROXY_PROGRAM="$<TARGET_FILE:proxy-program>"
                                                           PROXY_UNLOAD="$<TARGET_FILE:proxy-unload>"
                                                           LIBRARY="$<TARGET_FILE:atls>")
add_dependencies(proxy-integration-tests proxy-program proxy-unload)
