# The probe tries every way out of a container from inside. It is static and without sanitizers, because its
# container has no other file.
file(GLOB PROBE_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/support/probe/*.c)
add_executable(znc_probe ${PROBE_SOURCES})
target_compile_definitions(znc_probe PRIVATE _GNU_SOURCE)
target_compile_options(znc_probe PRIVATE -Wall -Wextra -Wshadow -Wconversion -Werror)
target_link_options(znc_probe PRIVATE -static)
target_link_libraries(znc_probe PRIVATE rt)

# Linked with the platform in addition to the library: a test starts additional programs in a container's
# namespace.
add_executable(probe_test
    probe_cve_image_test.cpp
    probe_cve_test.cpp
    probe_race_test.cpp
    probe_test.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/daemon_process.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/host_objects.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/ledger.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/probe_world.cpp)
target_include_directories(probe_test PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
target_link_libraries(probe_test PRIVATE znc_flags zncontainer zn_platform GTest::gtest)
add_test(NAME probe_test COMMAND znc_sandbox -- $<TARGET_FILE:probe_test>)
set_tests_properties(probe_test PROPERTIES TIMEOUT 600 RUN_SERIAL TRUE
    ENVIRONMENT "ZNCD=$<TARGET_FILE:zncd>;ZNC_PROBE=$<TARGET_FILE:znc_probe>")
