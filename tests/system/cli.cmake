# Tests of zncctl and zncd as a user runs them, each script in a sandbox.
function(znc_cli_test NAME)
    add_test(NAME ${NAME} COMMAND znc_sandbox ${ARGN} -- ${CMAKE_CURRENT_SOURCE_DIR}/${NAME}.sh)
    set_tests_properties(${NAME} PROPERTIES TIMEOUT 600 SKIP_RETURN_CODE 77
        ENVIRONMENT "ZNCCTL=$<TARGET_FILE:zncctl>;ZNCD=$<TARGET_FILE:zncd>")
endfunction()

znc_cli_test(cli_arguments)
znc_cli_test(cli_lifecycle)
znc_cli_test(cli_daemon)
znc_cli_test(cli_image)
znc_cli_test(cli_hostile_image)
znc_cli_test(cli_run)
znc_cli_test(cli_completion)
znc_cli_test(cli_terminal)
znc_cli_test(cli_raw)
znc_cli_test(cli_streams)

# Runs in containers without any other file: static and without sanitizers.
add_executable(znc_forger ${PROJECT_SOURCE_DIR}/tests/support/forger.c)
target_compile_definitions(znc_forger PRIVATE _GNU_SOURCE)
target_compile_options(znc_forger PRIVATE -Wall -Wextra -Wshadow -Wconversion -Werror)
target_link_options(znc_forger PRIVATE -static)
set_property(TEST cli_streams APPEND PROPERTY ENVIRONMENT "FORGER=$<TARGET_FILE:znc_forger>")

add_test(NAME source_rules
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/source_rules.sh ${PROJECT_SOURCE_DIR})
add_test(NAME source_arrows_test
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/source_arrows_test.sh ${PROJECT_SOURCE_DIR}
            ${CMAKE_CURRENT_BINARY_DIR}/source_arrows)

add_test(NAME readme_test COMMAND znc_sandbox -- ${CMAKE_CURRENT_SOURCE_DIR}/readme_test.sh ${PROJECT_SOURCE_DIR}/README.md)
set_tests_properties(readme_test PROPERTIES TIMEOUT 600
    ENVIRONMENT "ZNCCTL=$<TARGET_FILE:zncctl>;ZNCD=$<TARGET_FILE:zncd>")
