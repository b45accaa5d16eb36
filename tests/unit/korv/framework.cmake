# The web API framework and the daemon's own texts.
add_executable(korv_framework_test
    framework_configuration_test.cpp
    framework_error_table_test.cpp
    framework_json_text_test.cpp
    framework_registry_test.cpp
    framework_serve_test.cpp
    framework_wire_test.cpp
    ${PROJECT_SOURCE_DIR}/korvd/error_reference.cpp
    ${PROJECT_SOURCE_DIR}/korvd/nginx_config.cpp)
target_include_directories(korv_framework_test PRIVATE ${CMAKE_BINARY_DIR}/generated)
target_compile_definitions(korv_framework_test PRIVATE ERROR_PAGE="${PROJECT_SOURCE_DIR}/docs/ref/errors.md")
target_link_libraries(korv_framework_test PRIVATE korv soci_core GTest::gtest_main)
gtest_discover_tests(korv_framework_test DISCOVERY_MODE PRE_TEST)

# In a program of its own: a loaded module stays, and its health check with it.
add_library(framework_probe_module MODULE framework_probe_module.cpp)
target_link_libraries(framework_probe_module PRIVATE korv)
add_executable(korv_module_test framework_module_test.cpp)
target_link_libraries(korv_module_test PRIVATE korv GTest::gtest_main)
target_compile_definitions(korv_module_test PRIVATE PROBE_MODULE="$<TARGET_FILE:framework_probe_module>")
add_dependencies(korv_module_test framework_probe_module)
gtest_discover_tests(korv_module_test DISCOVERY_MODE PRE_TEST)
