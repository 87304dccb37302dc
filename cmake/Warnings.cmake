# The flags for all code of the project. Warnings are errors only in the presets, which set
# CMAKE_COMPILE_WARNING_AS_ERROR; other builds may use compilers with other warnings.
add_library(znc_flags INTERFACE)
target_compile_features(znc_flags INTERFACE c_std_11 cxx_std_20)
target_compile_options(znc_flags INTERFACE
    -Wall -Wextra -Wshadow -Wconversion
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>)
# At -O3, g++ 12 warns of overlapping copies in std::string where there are none (GCC bug 105651).
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(znc_flags INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
endif()

# g++ 12 warns of overflows in std::string where there are none; in a precompiled header it does not recognise that
# they are in a system header.
function(znc_accept_precompiled TARGET)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        target_compile_options(${TARGET} PRIVATE
            $<$<COMPILE_LANGUAGE:CXX>:-Wno-array-bounds -Wno-restrict -Wno-stringop-overflow -Wno-stringop-overread>)
    endif()
endfunction()

# Hardening; a test checks the built files for it.
target_compile_options(znc_flags INTERFACE
    -fstack-protector-strong -fstack-clash-protection
    $<$<STREQUAL:${CMAKE_SYSTEM_PROCESSOR},x86_64>:-fcf-protection>)
target_compile_definitions(znc_flags INTERFACE
    $<IF:$<STREQUAL:${ZNC_PLATFORM},linux>,_GNU_SOURCE,_XOPEN_SOURCE=800> $<$<COMPILE_LANGUAGE:CXX>:_GLIBCXX_ASSERTIONS>
    ${ZNC_PLACE_DEFINITIONS})
target_link_options(znc_flags INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)

# Built files do not depend on the directory of the build. Debug, coverage and sanitizer builds
# keep the full paths.
option(ZNC_COVERAGE "Count which lines and branches are run (g++); scripts/coverage.sh reads it" OFF)
if(NOT ZNC_COVERAGE AND NOT ZNC_SANITIZE)
    target_compile_options(znc_flags INTERFACE
        $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>
        $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_BINARY_DIR}=./build>)
endif()

# Each target is compiled with the sanitizers that the variable names in its directory.
set(ZNC_COMPILE_SANITIZERS ${ZNC_SANITIZE})
define_property(TARGET PROPERTY ZNC_COMPILE_SANITIZERS INITIALIZE_FROM_VARIABLE ZNC_COMPILE_SANITIZERS)
if(ZNC_SANITIZE)
    target_compile_options(znc_flags INTERFACE
        -fsanitize=$<TARGET_PROPERTY:ZNC_COMPILE_SANITIZERS> -fno-omit-frame-pointer -g)
    if(NOT ZNC_SANITIZE STREQUAL "thread")
        target_compile_options(znc_flags INTERFACE -fno-sanitize-recover=all)
    endif()
    target_link_options(znc_flags INTERFACE -fsanitize=${ZNC_SANITIZE})
endif()

# The flags for installed code. _FORTIFY_SOURCE needs an optimised build, which sanitizer builds are not.
add_library(znc_product_flags INTERFACE)
target_link_libraries(znc_product_flags INTERFACE znc_flags)
if(NOT ZNC_SANITIZE)
    target_compile_options(znc_product_flags INTERFACE
        $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE>
        $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2>)
endif()

# Programs and the shared library are linked statically with the C++ library, of which they use little. Without
# loading and relocating a shared one, a command takes two thirds of the time. Libraries of which a program uses
# nothing, such as that for decompression in the daemon, are not loaded.
add_library(znc_start_flags INTERFACE)
if(NOT ZNC_SANITIZE)
    target_link_options(znc_start_flags INTERFACE -static-libstdc++ -static-libgcc LINKER:--gc-sections,--as-needed)
    # The dynamic linker searches the libraries in the order in which they are linked, and most symbols are those of the
    # C library, which the compiler driver would put last.
    if(ZNC_PLATFORM STREQUAL "linux")
        target_link_options(znc_start_flags INTERFACE LINKER:--push-state,--no-as-needed,-lc,--pop-state)
    endif()
endif()

if(ZNC_COVERAGE)
    target_compile_options(znc_flags INTERFACE --coverage -fprofile-update=atomic)
    target_link_options(znc_flags INTERFACE --coverage)
endif()

# The flags for library and platform code, which has a C interface and uses neither exceptions nor RTTI.
add_library(znc_library_flags INTERFACE)
target_link_libraries(znc_library_flags INTERFACE znc_product_flags)
target_compile_options(znc_library_flags INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>)
if(ZNC_POSIX_ONLY)
    include(${CMAKE_CURRENT_LIST_DIR}/PosixOnly.cmake)
    znc_hide_all_but_posix(znc_library_flags)
endif()
