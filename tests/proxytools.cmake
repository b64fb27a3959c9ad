# The tests of the stand-in proxy manager and of its command-line client.
find_package(GTest REQUIRED)
pkg_check_modules(NLOHMANN_JSON REQUIRED IMPORTED_TARGET nlohmann_json)

add_executable(proxymanagerd-tests support/proxymanagerd_bus.cpp integration/proxymanagerd_test.cpp
                                   integration/proxymanagerctl_test.cpp)
target_include_directories(proxymanagerd-tests PRIVATE support)
target_compile_definitions(proxymanagerd-tests PRIVATE
    PROXYMANAGERD="$<TARGET_FILE:proxymanagerd>" PROXYMANAGERCTL="$<TARGET_FILE:proxymanagerctl>"
    POLICY_FILE="${PROJECT_SOURCE_DIR}/data/com.halvo.ProxyManagerService.conf")
target_link_libraries(proxymanagerd-tests PRIVATE proxy-manager-service PkgConfig::NLOHMANN_JSON
                                                  GTest::gtest GTest::gtest_main)
add_dependencies(proxymanagerd-tests proxymanagerd proxymanagerctl)
add_test(NAME proxymanagerd-tests COMMAND proxymanagerd-tests)
set_tests_properties(proxymanagerd-tests PROPERTIES TIMEOUT 600)
