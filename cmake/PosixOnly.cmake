# For ZNC_POSIX_ONLY: hides from the compiler what glibc has and POSIX.1-2024 does not.

# znc_hide_all_but_posix(FLAGS): code with these flags is compiled without the extensions of glibc, and cannot include
# headers of Linux: empty ones that fail take their places.
function(znc_hide_all_but_posix FLAGS)
    # The C library's own headers include these.
    set(NEEDED asm/errno.h asm/ioctls.h asm/ioctl.h asm/socket.h asm/sockios.h asm/types.h linux/errno.h linux/limits.h linux/types.h)
    set(OTHERS epoll eventfd fanotify fsuid inotify ioctl klog mount personality pidfd prctl quota random reboot sendfile
        signalfd swap syscall sysinfo sysmacros timerfd vfs xattr)
    list(TRANSFORM OTHERS REPLACE "(.+)" "sys/\\1.h")
    set(HIDDEN)
    foreach(DIRECTORY IN LISTS CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES)
        file(GLOB FOUND RELATIVE ${DIRECTORY} ${DIRECTORY}/linux/*.h ${DIRECTORY}/asm/*.h)
        list(APPEND HIDDEN ${FOUND})
    endforeach()
    if(NOT HIDDEN)
        message(FATAL_ERROR "ZNC_POSIX_ONLY found no headers of Linux to hide")
    endif()
    list(APPEND HIDDEN ${OTHERS})
    list(REMOVE_ITEM HIDDEN ${NEEDED})
    foreach(HEADER IN LISTS HIDDEN)
        file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/posix_only/${HEADER}
            CONTENT "#error \"${HEADER} is not a header of POSIX\"\n")
    endforeach()
    target_compile_options(${FLAGS} INTERFACE
        -U_GNU_SOURCE -I${PROJECT_BINARY_DIR}/posix_only
        $<$<COMPILE_LANGUAGE:CXX>:SHELL:-include ${PROJECT_SOURCE_DIR}/cmake/posix_2024.h>)
endfunction()
