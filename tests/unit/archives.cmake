# The archive modules: the DEFLATE adapter, the gzip reader, the tar extractor.
find_package(ZLIB REQUIRED) # compresses what the tests read
set(FORGE ${PROJECT_SOURCE_DIR}/tests/support/tarforge.cpp)
set(FAULTS ${PROJECT_SOURCE_DIR}/tests/support/alloc_fault.cpp)

znc_unit_test(gzlib_test SOURCES ${FORGE} ${FAULTS} LIBS ZLIB::ZLIB WRAP malloc calloc realloc strdup)
target_link_options(gzlib_test PRIVATE -Wl,--wrap=read -Wl,--wrap=lseek)
znc_unit_test(zncGzLib_test SOURCES ${FORGE} ${FAULTS} LIBS ZLIB::ZLIB WRAP malloc calloc realloc strdup)
znc_unit_test(zncTarLib_test
    SOURCES tar_fixture.cpp zncTarLib_hostile_test.cpp zncTarLib_programs_test.cpp ${FORGE} ${FAULTS}
    LIBS ZLIB::ZLIB WRAP malloc calloc realloc strdup)
target_link_options(zncTarLib_test PRIVATE
    -Wl,--wrap=write -Wl,--wrap=read -Wl,--wrap=clock_gettime -Wl,--wrap=close
    -Wl,--wrap=fchmod -Wl,--wrap=utimensat)

# The adapter has two inflaters to stand on; the same tests run over both, whichever the library got.
if(NOT ZNC_WITH_UZLIB)
    znc_unit_test(uzlib_adapter_test SOURCES ${FORGE} LIBS ZLIB::ZLIB)
    add_executable(uzlib_adapter_zlib_test uzlib_adapter_test.cpp ${FORGE}
        ${PROJECT_SOURCE_DIR}/container/runtime/src/uzlib_adapter.cpp)
    target_include_directories(uzlib_adapter_zlib_test PRIVATE
        ${PROJECT_SOURCE_DIR}/container/runtime/src/uzlib ${PROJECT_SOURCE_DIR}/tests/support)
    target_link_libraries(uzlib_adapter_zlib_test PRIVATE znc_flags ZLIB::ZLIB GTest::gtest_main)
    add_test(NAME uzlib_adapter_zlib_test COMMAND uzlib_adapter_zlib_test)
endif()
