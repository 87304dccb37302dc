# Fault injection at system calls: a process is killed there, or the call fails. The test suite tries a sample
# of the points; with ZNC_TEST_ALL in the environment all are tried.
if(NOT ZNC_SANITIZE)
    add_executable(crashat crashat.cpp crashat_tracer.cpp crashat_world.cpp
        ${PROJECT_SOURCE_DIR}/tests/support/layout_builder.cpp
        ${PROJECT_SOURCE_DIR}/tests/support/ledger.cpp)
    target_include_directories(crashat PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
    target_link_libraries(crashat PRIVATE znc_flags zncontainer mbedcrypto)
    set(CRASHAT_SAMPLE_kill 50) # points per operation
    set(CRASHAT_SAMPLE_errno 16)
    foreach(MODE kill errno)
        add_test(NAME crashat_${MODE} COMMAND znc_sandbox --
            $<TARGET_FILE:crashat> ${MODE} --sample ${CRASHAT_SAMPLE_${MODE}})
        set_tests_properties(crashat_${MODE} PROPERTIES TIMEOUT 7200 RUN_SERIAL TRUE
            ENVIRONMENT "ZNCD=$<TARGET_FILE:zncd>")
    endforeach()
endif()

# Unpacks and garbage collections killed at random system calls, and the resulting state of the store.
# KILL_ROUNDS=200 does more of them.
if(NOT ZNC_SANITIZE)
    add_executable(store_kill_test store_kill_test.cpp crashat_tracer.cpp
        ${PROJECT_SOURCE_DIR}/tests/support/layout_builder.cpp)
    target_include_directories(store_kill_test PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
    target_link_libraries(store_kill_test PRIVATE znc_flags zncontainer mbedcrypto GTest::gtest_main)
    add_test(NAME store_kill_test COMMAND znc_sandbox -- $<TARGET_FILE:store_kill_test>)
    set_tests_properties(store_kill_test PROPERTIES TIMEOUT 600)
endif()
