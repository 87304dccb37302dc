# Real images: written by umoci, copied by skopeo, unpacked by the library and by umoci, and compared. The
# layouts are created once and kept, in ZNC_TEST_CACHE if that is set when the tests run.
add_executable(unpack_driver ${PROJECT_SOURCE_DIR}/tests/support/unpack_driver.cpp)
target_link_libraries(unpack_driver PRIVATE znc_flags zncontainer)

# The layouts are made once and kept, in ZNC_TEST_CACHE if that is set when the tests run.
set(IMAGES_ENVIRONMENT "UNPACK_DRIVER=$<TARGET_FILE:unpack_driver>"
    "ZNC_TEST_CACHE_DEFAULT=${CMAKE_BINARY_DIR}/testcache")
add_test(NAME images_fixture COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/images_fixture.sh)
set_tests_properties(images_fixture PROPERTIES TIMEOUT 1800 FIXTURES_SETUP image_layouts
    ENVIRONMENT "${IMAGES_ENVIRONMENT}")

# znc_images_test(NAME [SANDBOX-OPTION...])
function(znc_images_test NAME)
    add_test(NAME ${NAME}
        COMMAND znc_sandbox ${ARGN} -- bash ${CMAKE_CURRENT_SOURCE_DIR}/${NAME}.sh)
    set_tests_properties(${NAME} PROPERTIES TIMEOUT 1800 FIXTURES_REQUIRED image_layouts
        ENVIRONMENT "${IMAGES_ENVIRONMENT}")
endfunction()

znc_images_test(images_raw --no-overlay)
znc_images_test(images_overlay)
znc_images_test(images_inspect)
znc_images_test(images_bundle --no-overlay)
