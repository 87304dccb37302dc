# Checks the hardening of the built files. Builds with sanitizers or coverage are not delivered.
if(NOT ZNC_SANITIZE AND NOT ZNC_COVERAGE)
    add_test(NAME hardening_test
        COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/hardening_test.sh
            $<TARGET_FILE:zncontainer> $<TARGET_FILE:zncd> $<TARGET_FILE:zncctl> $<TARGET_FILE:zncctl-import> $<TARGET_FILE:zn_helper>
            $<TARGET_FILE:znc_runtime>:$<TARGET_FILE:zn_platform>
            $<IF:$<CONFIG:Debug>,0,1>)

    add_test(NAME service_test COMMAND znc_sandbox --
        ${CMAKE_CURRENT_SOURCE_DIR}/service_test.sh ${PROJECT_SOURCE_DIR}/packaging/zncd.service.in)
    set_tests_properties(service_test PROPERTIES TIMEOUT 600 SKIP_RETURN_CODE 77
        ENVIRONMENT "ZNCCTL=$<TARGET_FILE:zncctl>;ZNCD=$<TARGET_FILE:zncd>")
endif()
