# Tests with hostile archives and images: tables of cases, each extracted next to directories that must not
# change.
find_package(ZLIB REQUIRED)
set(CORPUS_SUPPORT
    corpus_world.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/layout_builder.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/sentinel.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/tarforge.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/tarforge_table.cpp)

# znc_corpus_test(NAME SOURCE...)
function(znc_corpus_test NAME)
    add_executable(${NAME} ${NAME}.cpp ${ARGN} ${CORPUS_SUPPORT})
    target_include_directories(${NAME} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
    target_link_libraries(${NAME} PRIVATE znc_test_flags ZLIB::ZLIB)
    target_precompile_headers(${NAME} REUSE_FROM znc_test_pch)
    add_test(NAME ${NAME} COMMAND znc_sandbox -- $<TARGET_FILE:${NAME}>)
    set_tests_properties(${NAME} PROPERTIES TIMEOUT 600)
endfunction()

znc_corpus_test(corpus_test)
znc_corpus_test(corpus_image_test corpus_documents.cpp corpus_images.cpp)
znc_corpus_test(corpus_race_test)
znc_corpus_test(truncation_test)
if(NOT ZNC_SANITIZE) # the test measures memory
    znc_corpus_test(corpus_limits_test)
endif()
