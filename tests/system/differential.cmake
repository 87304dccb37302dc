# Compares the library with other tools on the same archives, layouts and documents.
find_package(ZLIB REQUIRED)
add_executable(differential_test differential_json_test.cpp differential_tar_test.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/tarforge.cpp)
target_include_directories(differential_test PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
target_link_libraries(differential_test PRIVATE znc_test_flags ZLIB::ZLIB)
target_precompile_headers(differential_test REUSE_FROM znc_test_pch)
add_test(NAME differential_test COMMAND znc_sandbox -- $<TARGET_FILE:differential_test>)
set_tests_properties(differential_test PROPERTIES TIMEOUT 600)

add_test(NAME differential_layouts
    COMMAND znc_sandbox --no-overlay -- ${CMAKE_CURRENT_SOURCE_DIR}/differential_layouts.sh)
set_tests_properties(differential_layouts PROPERTIES TIMEOUT 600 SKIP_RETURN_CODE 77
    ENVIRONMENT "UNPACK_DRIVER=$<TARGET_FILE:unpack_driver>")
