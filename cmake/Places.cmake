# Where the programs keep their state unless they are told otherwise. The packages set all three. An empty option
# leaves the default of the code, which is also the one in the manual pages' sources.
set(ZNC_STORE_BASE "" CACHE STRING "Storage base if the environment variable ZNC_BASE is not set; empty: /ram0/znc")
set(ZNC_RUNTIME_DIR "" CACHE STRING "Runtime directory of zncd and zncctl; empty: /run/zarnel")
set(ZNC_ENGINE_ROOT "" CACHE STRING "State directories of zncrun, if it is run by root; empty: /run/zncrun")

set(ZNC_PLACE_DEFINITIONS) # for the compiler
set(ZNC_PLACE_EDITS)       # for sed, on texts that name the defaults

# znc_place(OPTION MACRO DEFAULT): refuses values that are no plain absolute path. The characters allowed need no
# quoting in C, in sed, in a systemd unit or in a manual page.
function(znc_place OPTION MACRO DEFAULT)
    set(VALUE "${${OPTION}}")
    if("${VALUE}" STREQUAL "")
        return()
    endif()
    if(NOT VALUE MATCHES "^(/[A-Za-z0-9.-]+)+$" OR VALUE MATCHES "/[.][.]?(/|$)")
        message(FATAL_ERROR "zncontainer: ${OPTION} is not an absolute path of letters, digits, \".\" and \"-\": ${VALUE}")
    endif()
    set(ZNC_PLACE_DEFINITIONS ${ZNC_PLACE_DEFINITIONS} "${MACRO}=\"${VALUE}\"" PARENT_SCOPE)
    set(ZNC_PLACE_EDITS ${ZNC_PLACE_EDITS} -e "s|${DEFAULT}|${VALUE}|g" PARENT_SCOPE)
endfunction()
znc_place(ZNC_STORE_BASE ZNC_STORE_BASE /ram0/znc)
znc_place(ZNC_RUNTIME_DIR ZN_RUNTIME_DIR /run/zarnel)
znc_place(ZNC_ENGINE_ROOT ZNC_ENGINE_ROOT /run/zncrun)
