# The packages: made from this build with cpack (which does not build anything), checked, installed in a clean
# root, and used.
if(NOT ZNC_SANITIZE)
    set(PACKAGES_ENVIRONMENT "ZNC_BUILD_DIR=${CMAKE_BINARY_DIR}"
        "ZNC_TEST_CACHE_DEFAULT=${CMAKE_BINARY_DIR}/testcache")

    # znc_packages_test(NAME [SANDBOX] [SETUP FIXTURE] [NEEDS FIXTURE...])
    function(znc_packages_test NAME)
        cmake_parse_arguments(ARG "SANDBOX" "SETUP" "NEEDS" ${ARGN})
        set(COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/${NAME}.sh)
        if(ARG_SANDBOX)
            add_test(NAME ${NAME} COMMAND znc_sandbox -- ${COMMAND})
        else()
            add_test(NAME ${NAME} COMMAND ${COMMAND})
        endif()
        set_tests_properties(${NAME} PROPERTIES TIMEOUT 1200 ENVIRONMENT "${PACKAGES_ENVIRONMENT}"
            FIXTURES_SETUP "${ARG_SETUP}" FIXTURES_REQUIRED "${ARG_NEEDS}")
    endfunction()

    znc_packages_test(packages_consumer SANDBOX)
    if(ZNC_BUILD_MAN)
        znc_packages_test(packages_manual)
        znc_packages_test(packages_build SETUP packages_debs)
        znc_packages_test(packages_fixture SETUP packages_root NEEDS packages_debs image_layouts)
        znc_packages_test(packages_install SANDBOX NEEDS packages_debs packages_root)
    endif()
endif()
