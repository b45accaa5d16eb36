# What the life of a share rests on: removing, encrypting and moving folders, on real file systems.
add_executable(korv_engine_test
    cipher_folder_test.cpp
    moved_share.cpp
    private_machine.cpp
    share_move_meanwhile_test.cpp
    share_move_test.cpp
    tree_manifest.cpp
    tree_remove_test.cpp
)
target_link_libraries(korv_engine_test PRIVATE korv soci_core acl GTest::gtest)
gtest_discover_tests(korv_engine_test DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 300)
