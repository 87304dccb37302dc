# Tests of recovery after a part of the system dies or its records are damaged.
if(NOT ZNC_SANITIZE)
    add_executable(recovery_test recovery_test.cpp
        ${PROJECT_SOURCE_DIR}/tests/support/daemon_process.cpp
        ${PROJECT_SOURCE_DIR}/tests/support/ledger.cpp)
    target_include_directories(recovery_test PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
    target_link_libraries(recovery_test PRIVATE znc_flags zncontainer zn_platform GTest::gtest_main)
    add_test(NAME recovery_test COMMAND znc_sandbox -- $<TARGET_FILE:recovery_test>)
    set_tests_properties(recovery_test PROPERTIES TIMEOUT 600 RUN_SERIAL TRUE
        ENVIRONMENT "ZNCD=$<TARGET_FILE:zncd>")

    add_test(NAME powerloss_test COMMAND znc_sandbox --
        ${CMAKE_CURRENT_SOURCE_DIR}/powerloss_test.py $<TARGET_FILE:zncctl> $<TARGET_FILE:zncd>)
    set_tests_properties(powerloss_test PROPERTIES TIMEOUT 600 SKIP_RETURN_CODE 77)
endif()
