# Remote mounts, with a real server on a network of the test's own.
add_executable(korv_mount_test
    crypto_api_test.cpp
    mount_source_test.cpp
    private_machine.cpp
    remote_mount_recovery_test.cpp
    remote_mounts_test.cpp
    samba_server.cpp
    server_probe_test.cpp
    share_key_test.cpp
    silent_file_system.cpp
)
target_compile_definitions(korv_mount_test PRIVATE TEST_HELPERS="${PROJECT_SOURCE_DIR}/tests/helpers")
target_link_libraries(korv_mount_test PRIVATE korv PkgConfig::SODIUM soci_core soci_sqlite3 acl GTest::gtest)
gtest_discover_tests(korv_mount_test DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 120)
