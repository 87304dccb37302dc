# Tests with many clients, hostile clients, and stops of the daemon, each with a real daemon.
set(LOAD_SUPPORT ${PROJECT_SOURCE_DIR}/tests/support/client_group.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/daemon_process.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/ledger.cpp)

# znc_load_test(NAME [SOURCES...]): runs serially, because queue memory is limited per user.
function(znc_load_test NAME)
    add_executable(${NAME} ${NAME}.cpp ${LOAD_SUPPORT} ${ARGN})
    target_include_directories(${NAME} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
    target_link_libraries(${NAME} PRIVATE znc_flags zncontainer zn_platform GTest::gtest_main)
    add_test(NAME ${NAME} COMMAND znc_sandbox -- $<TARGET_FILE:${NAME}>)
    set_tests_properties(${NAME} PROPERTIES TIMEOUT 600 RUN_SERIAL TRUE
        ENVIRONMENT "ZNCD=$<TARGET_FILE:zncd>")
endfunction()

znc_load_test(load_test)
znc_load_test(hostile_test)
znc_load_test(stop_test)
znc_load_test(model_test)
znc_load_test(daemon_ends_test)
# The lock of a started container stays held. ThreadSanitizer's deadlock detector aborts a process that holds
# more than 63 locks, and this test has a hundred.
set_property(TEST stop_test APPEND PROPERTY ENVIRONMENT "TSAN_OPTIONS=detect_deadlocks=0")

# Uses only the platform layer: the test process creates the namespaces.
add_executable(load_threads_test load_threads_test.cpp)
target_include_directories(load_threads_test PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
target_link_libraries(load_threads_test PRIVATE znc_flags zn_platform GTest::gtest_main)
add_test(NAME load_threads_test COMMAND znc_sandbox -- $<TARGET_FILE:load_threads_test>)
set_tests_properties(load_threads_test PROPERTIES TIMEOUT 600)
