# Tests of containers with the real daemon and the shared library.
add_executable(containers_test containers_test.cpp ${PROJECT_SOURCE_DIR}/tests/support/ledger.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/daemon_process.cpp)
target_include_directories(containers_test PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
target_link_libraries(containers_test PRIVATE znc_flags zncontainer GTest::gtest_main)
add_test(NAME containers_test COMMAND znc_sandbox -- $<TARGET_FILE:containers_test>)
set_tests_properties(containers_test PROPERTIES TIMEOUT 600 RUN_SERIAL TRUE
    ENVIRONMENT "ZNCD=$<TARGET_FILE:zncd>")
