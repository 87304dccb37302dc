# Utilities, storage paths, the JSON additions, and what the built library shows to the outside.
set(ALLOC_FAULT SOURCES ${PROJECT_SOURCE_DIR}/tests/support/alloc_fault.cpp
                WRAP malloc calloc realloc strdup)

znc_unit_test(cJSON_Additions_test ${ALLOC_FAULT})
znc_unit_test(read_fault_test SOURCES ${PROJECT_SOURCE_DIR}/tests/support/layout_builder.cpp WRAP read)
znc_unit_test(zncOverlayLib_device_test)
znc_unit_test(zncOverlayLib_test)
znc_unit_test(zncTreeLinks_test ${ALLOC_FAULT})
znc_unit_test(zncUtil_options_test)
znc_unit_test(zncUtil_terminal_test LIBS util)
znc_unit_test(zncUtil_test ${ALLOC_FAULT})

# Each public header stands alone, in C and in C++.
add_library(public_headers OBJECT
    header/zncontainer_alone.c header/zncontainer_alone.cpp
    header/zncprotocol_alone.c header/zncprotocol_alone.cpp)
target_compile_options(public_headers PRIVATE -Wall -Wextra -Wpedantic -Werror)
target_link_libraries(public_headers PRIVATE zncontainer)

# What the headers declare is what the library exports, and that is the list checked in.
set(EXPORTS ${PROJECT_SOURCE_DIR}/tests/data/exports.txt)
add_executable(exports_test header/exports_test.c $<TARGET_OBJECTS:public_headers>)
target_compile_options(exports_test PRIVATE -Wall -Wextra -Wpedantic -Werror)
target_link_libraries(exports_test PRIVATE zncontainer ${CMAKE_DL_LIBS})
if(ZNC_SANITIZE)
    target_link_options(exports_test PRIVATE -fsanitize=${ZNC_SANITIZE})
endif()
add_test(NAME exports_test COMMAND exports_test $<TARGET_FILE:zncontainer> ${EXPORTS})
add_test(NAME exports_list_test
    COMMAND ${PROJECT_SOURCE_DIR}/tests/system/exports_test.sh $<TARGET_FILE:zncontainer>
            ${PROJECT_SOURCE_DIR}/container/runtime/src/zncontainer.map ${EXPORTS})
