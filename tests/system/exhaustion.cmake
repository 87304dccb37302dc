# Tests of exhausted resources and other obstacles, and of leaks in long runs.
function(znc_exhaustion_test NAME)
    add_executable(${NAME} ${ARGN}
        ${PROJECT_SOURCE_DIR}/tests/support/daemon_process.cpp
        ${PROJECT_SOURCE_DIR}/tests/support/layout_builder.cpp
        ${PROJECT_SOURCE_DIR}/tests/support/ledger.cpp)
    target_include_directories(${NAME} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
    target_link_libraries(${NAME} PRIVATE
        znc_flags zncontainer PkgConfig::CJSON ${MBEDCRYPTO} GTest::gtest_main)
    if(ZNC_SANITIZE)
        target_compile_definitions(${NAME} PRIVATE ZNC_SANITIZED)
    endif()
    add_test(NAME ${NAME} COMMAND znc_sandbox -- $<TARGET_FILE:${NAME}>)
    set_tests_properties(${NAME} PROPERTIES TIMEOUT 600 RUN_SERIAL TRUE
        ENVIRONMENT "ZNCD=$<TARGET_FILE:zncd>")
endfunction()

znc_exhaustion_test(exhaustion_disk_test exhaustion_disk_test.cpp)
znc_exhaustion_test(exhaustion_limits_test exhaustion_limits_test.cpp)
znc_exhaustion_test(exhaustion_stuck_test exhaustion_stuck_test.cpp)
znc_exhaustion_test(soak_test soak_test.cpp)
znc_exhaustion_test(unpack_race_test unpack_race_test.cpp)

# Complete flows with the library's objects: the daemon task runs within the test, and allocations fail.
foreach(NAME alloc_flow_test eintr_test)
    add_executable(${NAME} ${NAME}.cpp
        ${PROJECT_SOURCE_DIR}/tests/support/alloc_fault.cpp
        ${PROJECT_SOURCE_DIR}/tests/support/daemon_process.cpp
        ${PROJECT_SOURCE_DIR}/tests/support/layout_builder.cpp
        ${PROJECT_SOURCE_DIR}/tests/support/ledger.cpp)
    target_include_directories(${NAME} PRIVATE ${PROJECT_SOURCE_DIR}/container/runtime/src
                                               ${PROJECT_SOURCE_DIR}/tests/support)
    target_link_libraries(${NAME} PRIVATE znc_flags znc_runtime GTest::gtest_main)
    foreach(FN malloc calloc realloc strdup)
        target_link_options(${NAME} PRIVATE -Wl,--wrap=${FN})
    endforeach()
    add_test(NAME ${NAME} COMMAND znc_sandbox -- $<TARGET_FILE:${NAME}>)
    set_tests_properties(${NAME} PROPERTIES TIMEOUT 600 RUN_SERIAL TRUE
        ENVIRONMENT "ZNCD=$<TARGET_FILE:zncd>")
endforeach()
