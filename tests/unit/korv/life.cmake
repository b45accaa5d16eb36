# The life of a share: renaming, encrypting and removing, with rows and folders.
add_executable(korv_life_test
    encrypted_share_test.cpp
    move_job_test.cpp
    open_files_test.cpp
    private_machine.cpp
    share_life.cpp
    share_removal_test.cpp
    share_rename_test.cpp
)
target_link_libraries(korv_life_test PRIVATE korv soci_core soci_sqlite3 acl GTest::gtest)
gtest_discover_tests(korv_life_test DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 300)
