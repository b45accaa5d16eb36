# Disks that aren't there.
pkg_check_modules(UMOCKDEV REQUIRED IMPORTED_TARGET umockdev-1.0)
add_executable(korv_external_disk_test
    external_disk_main.cpp
    external_disk_state_test.cpp
    external_disk_test.cpp
    pretended_disks.cpp
    silent_file_system.cpp
)
target_link_libraries(korv_external_disk_test PRIVATE korv PkgConfig::UMOCKDEV GTest::gtest)
# What one pretends to format is looked for among the processes of all.
gtest_discover_tests(korv_external_disk_test DISCOVERY_MODE PRE_TEST PROPERTIES RESOURCE_LOCK processes)
