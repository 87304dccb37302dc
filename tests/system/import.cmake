# Tests of zncctl import: images made by real tools, compared with the trees that other tools make of them,
# and the corpus of hostile archives and images.

# znc_import_test(NAME): runs the test in the sandbox of the other tests of zncctl.
function(znc_import_test NAME)
    znc_cli_test(${NAME})
    set_property(TEST ${NAME} APPEND PROPERTY ENVIRONMENT
        "ZNC_TEST_CACHE_DEFAULT=${CMAKE_BINARY_DIR}/testcache" "ZNC_SANITIZED=${ZNC_SANITIZE}")
endfunction()

znc_import_test(cli_import_tars)
znc_import_test(cli_import_images)
znc_import_test(cli_import_buildah)
znc_import_test(cli_import_limits)
if(NOT ZNC_SANITIZE) # a complete system takes too long with sanitizers
    znc_import_test(cli_import_debian)
    znc_import_test(cli_import_kill)
    set_tests_properties(cli_import_debian PROPERTIES FIXTURES_REQUIRED image_layouts)
endif()

find_package(ZLIB REQUIRED)
add_executable(import_corpus_test import_corpus_test.cpp corpus_documents.cpp corpus_images.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/layout_builder.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/sentinel.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/tarforge.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/tarforge_table.cpp)
target_include_directories(import_corpus_test PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
target_compile_definitions(import_corpus_test PRIVATE
    ZNC_IMPORT_PROGRAM="$<TARGET_FILE:zncctl-import>")
if(ZNC_SANITIZE)
    target_compile_definitions(import_corpus_test PRIVATE ZNC_SANITIZED)
endif()
target_link_libraries(import_corpus_test PRIVATE znc_test_flags ZLIB::ZLIB)
add_dependencies(import_corpus_test zncctl-import)
add_test(NAME import_corpus_test COMMAND znc_sandbox -- $<TARGET_FILE:import_corpus_test>)
set_tests_properties(import_corpus_test PROPERTIES TIMEOUT 900)
