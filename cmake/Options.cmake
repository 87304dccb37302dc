# The options of the build. Below another project (add_subdirectory, FetchContent) only the library is built, and
# nothing is installed, unless that project asks for more.
option(ZNC_BUILD_PROGRAMS "Build zncd, zncctl, zncctl-import and zncrun" ${PROJECT_IS_TOP_LEVEL})
option(ZNC_INSTALL "Install what is built" ${PROJECT_IS_TOP_LEVEL})
option(ZNC_WITH_UZLIB "Link an installed uzlib instead of the adapter over ISA-L or zlib" OFF)
option(ZNC_BUILD_BENCH "Build the programs of bench/run.sh" OFF)
option(ZNC_PRECOMPILE_HEADERS "Precompile the headers that most sources of the programs include" OFF)
set(ZNC_PLATFORM linux CACHE STRING "The folder of platform/ that is built: linux, or posix, which has images but no containers")
set_property(CACHE ZNC_PLATFORM PROPERTY STRINGS linux posix)
option(ZNC_POSIX_ONLY "Compile the library with nothing in sight but POSIX.1-2024; for ZNC_PLATFORM=posix and glibc" OFF)
set(ZNC_SANITIZE "" CACHE STRING "Sanitizers for all code but the freestanding helper, e.g. address,undefined")
set(ZNC_BUILD_TESTS AUTO CACHE STRING "Build the tests: ON, OFF, or AUTO, which is where GoogleTest is installed")
set(ZNC_WITH_SYSTEMD AUTO CACHE STRING
    "Let zncrun create control groups by systemd: ON, OFF, or AUTO, which is where the headers of libsystemd are installed")
set(ZNC_BUILD_MAN AUTO CACHE STRING "Build the manual pages: ON, OFF, or AUTO, which is where scdoc is installed")

if(NOT ZNC_PLATFORM MATCHES "^(linux|posix)$")
    message(FATAL_ERROR "ZNC_PLATFORM must be \"linux\" or \"posix\", not \"${ZNC_PLATFORM}\"")
elseif(ZNC_PLATFORM STREQUAL "linux" AND NOT CMAKE_SYSTEM_NAME STREQUAL "Linux")
    message(FATAL_ERROR "platform/linux is for Linux, not for ${CMAKE_SYSTEM_NAME}: set ZNC_PLATFORM=posix")
elseif(ZNC_PLATFORM STREQUAL "linux" AND NOT CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|amd64|aarch64|arm64)$")
    message(FATAL_ERROR "platform/linux knows the system calls of x86_64 and aarch64, not of ${CMAKE_SYSTEM_PROCESSOR}: "
        "set ZNC_PLATFORM=posix")
elseif(ZNC_PLATFORM STREQUAL "posix" AND ZNC_BUILD_PROGRAMS)
    message(STATUS "zncontainer: zncd, zncctl and zncrun are not built: platform/posix has no containers")
endif()
if(ZNC_POSIX_ONLY AND NOT ZNC_PLATFORM STREQUAL "posix")
    message(FATAL_ERROR "ZNC_POSIX_ONLY needs ZNC_PLATFORM=posix")
endif()

# A shared library unless BUILD_SHARED_LIBS is set to OFF.
if(DEFINED BUILD_SHARED_LIBS AND NOT BUILD_SHARED_LIBS)
    set(ZNC_LIBRARY_TYPE STATIC)
else()
    set(ZNC_LIBRARY_TYPE SHARED)
endif()

if(PROJECT_IS_TOP_LEVEL AND NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "Debug, Release, RelWithDebInfo or MinSizeRel" FORCE)
endif()

if(ZNC_INSTALL OR ZNC_BUILD_PROGRAMS)
    # Debian's linker, loader and pkg-config look below the triplet in /usr/local as they do in /usr.
    if(PROJECT_IS_TOP_LEVEL AND NOT DEFINED CMAKE_INSTALL_LIBDIR AND CMAKE_LIBRARY_ARCHITECTURE
       AND EXISTS /etc/debian_version)
        set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Object code libraries")
    endif()
    include(GNUInstallDirs)
endif()

# znc_decide(OPTION WHAT POSSIBLE REASON): replaces the value AUTO by POSSIBLE. If that is false, prints that
# WHAT is not built, and the REASON.
function(znc_decide OPTION WHAT POSSIBLE REASON)
    if(NOT ${OPTION} STREQUAL "AUTO")
        return()
    endif()
    if(NOT POSSIBLE)
        message(STATUS "zncontainer: ${WHAT} are not built: ${REASON}")
    endif()
    set(${OPTION} ${POSSIBLE} PARENT_SCOPE)
endfunction()

if(NOT ZNC_BUILD_PROGRAMS OR NOT ZNC_INSTALL)
    znc_decide(ZNC_BUILD_MAN "the manual pages" OFF "they belong to the installed programs")
else()
    find_program(ZNC_SCDOC scdoc)
    if(ZNC_SCDOC)
        set(ZNC_SCDOC_FOUND ON)
    endif()
    znc_decide(ZNC_BUILD_MAN "the manual pages" "${ZNC_SCDOC_FOUND}" "scdoc is not installed (Debian: scdoc)")
endif()
