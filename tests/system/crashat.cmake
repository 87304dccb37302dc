# Faults at each system call: a process of the system is killed there, or the call fails. The suite
# tries a sample of the points; with ZNC_TEST_ALL in the environment, and by hand, all are tried.
if(NOT ZNC_SANITIZE)
    add_executable(crashat crashat.cpp crashat_tracer.cpp crashat_world.cpp
        ${PROJECT_SOURCE_DIR}/tests/support/layout_builder.cpp
        ${PROJECT_SOURCE_DIR}/tests/support/ledger.cpp)
    target_include_directories(crashat PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
    target_link_libraries(crashat PRIVATE znc_flags zncontainer mbedcrypto)
    set(CRASHAT_SAMPLE_kill 50) # of each operation
    set(CRASHAT_SAMPLE_errno 16)
    foreach(MODE kill errno)
        add_test(NAME crashat_${MODE} COMMAND znc_sandbox --
            $<TARGET_FILE:crashat> ${MODE} --sample ${CRASHAT_SAMPLE_${MODE}})
        set_tests_properties(crashat_${MODE} PROPERTIES TIMEOUT 7200 RUN_SERIAL TRUE
            ENVIRONMENT "ZNCD=$<TARGET_FILE:zncd>")
    endforeach()
endif()
