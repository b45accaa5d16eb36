# The NAS side: what libkorv's system and services folders do on real files.
add_executable(korv_system_test
    accounts_test.cpp
    acl_test.cpp
    app_privilege_test.cpp
    bounded_call_test.cpp
    free_space_test.cpp
    key_value_file_test.cpp
    mount_table_test.cpp
    private_machine.cpp
    samba_test.cpp
    schema_test.cpp
    share_access_test.cpp
    share_api_test.cpp
    share_creation_test.cpp
    share_name_test.cpp
    share_rights_test.cpp
    silent_file_system.cpp
)
target_link_libraries(korv_system_test PRIVATE korv soci_core soci_sqlite3 acl GTest::gtest)
gtest_discover_tests(korv_system_test DISCOVERY_MODE PRE_TEST)
