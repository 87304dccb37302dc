# Installs the components: "library" (the shared library), "dev" (headers and files for building against it),
# "tools" (zncctl and zncd), "import" (the program that "zncctl import" executes), "oci" (zncrun). The directories
# are those of GNUInstallDirs.
include(CMakePackageConfigHelpers)

set(ZNC_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/zncontainer)
set(ZNC_PACKAGING ${PROJECT_SOURCE_DIR}/packaging)

install(TARGETS zncontainer EXPORT zncontainerTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(FILES
    ${PROJECT_SOURCE_DIR}/container/runtime/include/zncontainer.h
    ${PROJECT_SOURCE_DIR}/container/runtime/include/zncprotocol.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(FILES
    ${PROJECT_SOURCE_DIR}/examples/CMakeLists.txt
    ${PROJECT_SOURCE_DIR}/examples/embed.c
    ${PROJECT_SOURCE_DIR}/examples/embed.cpp
    ${PROJECT_SOURCE_DIR}/examples/tutorial.c
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libzncontainer-dev/examples COMPONENT dev)

# For find_package(zncontainer) and the target zncontainer::zncontainer.
install(EXPORT zncontainerTargets NAMESPACE zncontainer:: DESTINATION ${ZNC_CMAKEDIR} COMPONENT dev)
configure_package_config_file(${ZNC_PACKAGING}/zncontainerConfig.cmake.in zncontainerConfig.cmake
    INSTALL_DESTINATION ${ZNC_CMAKEDIR})
write_basic_package_version_file(zncontainerConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/zncontainerConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/zncontainerConfigVersion.cmake
    DESTINATION ${ZNC_CMAKEDIR} COMPONENT dev)

# For pkg-config. The paths are relative to the location of the .pc file, so that an installed tree can be
# moved. With Debian's triplet the file is one directory deeper.
file(RELATIVE_PATH ZNC_PC_TO_PREFIX
    /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" ZNC_PC_TO_PREFIX ${ZNC_PC_TO_PREFIX})
list(TRANSFORM ZNC_LINK_NAMES PREPEND -l OUTPUT_VARIABLE ZNC_PC_PRIVATE)
list(JOIN ZNC_PC_PRIVATE " " ZNC_PC_PRIVATE)
configure_file(${ZNC_PACKAGING}/zncontainer.pc.in zncontainer.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zncontainer.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

if(NOT TARGET zncctl)
    return()
endif()

install(TARGETS zncctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(TARGETS zncd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT tools)
if(TARGET zncctl-import)
    install(TARGETS zncctl-import RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/zncontainer COMPONENT import)
endif()

install(TARGETS zncrun RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT oci)

# What tells engines of zncrun. They contain the path of the program, which is known only at installation. podman
# reads further files of its configuration in /etc only; the others are examples, because these engines have a single
# file or directories that the administrator chooses.
install(CODE "
    set(ZNC_BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    foreach(name podman.conf containerd.toml docker-daemon.json crio.conf)
        configure_file(\"${ZNC_PACKAGING}/engines/\${name}.in\" \"${CMAKE_CURRENT_BINARY_DIR}/engines/\${name}\" @ONLY)
    endforeach()
    if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
        file(INSTALL \"${CMAKE_CURRENT_BINARY_DIR}/engines/podman.conf\" DESTINATION /etc/containers/containers.conf.d
            RENAME 50-zncrun.conf)
    endif()"
    COMPONENT oci)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/engines/podman.conf
    ${CMAKE_CURRENT_BINARY_DIR}/engines/containerd.toml
    ${CMAKE_CURRENT_BINARY_DIR}/engines/docker-daemon.json
    ${CMAKE_CURRENT_BINARY_DIR}/engines/crio.conf
    ${ZNC_PACKAGING}/engines/runtimeclass.yaml
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/zncontainer-oci/examples COMPONENT oci)

# The systemd unit, sysctl settings and runtime directory of the daemon. The unit contains the path of the
# program, which is known only at installation (cmake --install --prefix).
install(CODE "
    set(ZNC_SBINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}\")
    configure_file(\"${ZNC_PACKAGING}/zncd.service.in\" \"${CMAKE_CURRENT_BINARY_DIR}/zncd.service\" @ONLY)"
    COMPONENT tools)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zncd.service DESTINATION lib/systemd/system COMPONENT tools)
install(FILES ${ZNC_PACKAGING}/sysctl.conf DESTINATION lib/sysctl.d RENAME 30-zncontainer.conf
    COMPONENT tools)
file(READ ${ZNC_PACKAGING}/tmpfiles.conf TMPFILES)
if(ZNC_RUNTIME_DIR)
    string(REPLACE /run/zarnel ${ZNC_RUNTIME_DIR} TMPFILES "${TMPFILES}")
endif()
file(CONFIGURE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/tmpfiles.conf CONTENT "${TMPFILES}" @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tmpfiles.conf DESTINATION lib/tmpfiles.d RENAME zncontainer.conf
    COMPONENT tools)

# How programs of the build are run by it: those for another processor by an emulator.
list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " ZNC_EMULATOR)

# The manual pages; not without scdoc, and not in builds with sanitizers, which are for tests only.
if(ZNC_BUILD_MAN AND NOT ZNC_SANITIZE)
    add_subdirectory(man)
endif()

# Completions, in the directories in which Debian's shells search. zncctl itself prints them.
if((NOT CMAKE_CROSSCOMPILING OR ZNC_EMULATOR) AND NOT ZNC_SANITIZE)
    set(COMPLETIONS)
    function(znc_completion SHELL DIRECTORY FILE)
        set(OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/completions/${FILE})
        add_custom_command(OUTPUT ${OUTPUT}
            COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/completions
            COMMAND sh -c "${ZNC_EMULATOR} '$<TARGET_FILE:zncctl>' completion ${SHELL} >'${OUTPUT}'"
            DEPENDS zncctl VERBATIM)
        install(FILES ${OUTPUT} DESTINATION ${CMAKE_INSTALL_DATADIR}/${DIRECTORY} COMPONENT tools)
        set(COMPLETIONS ${COMPLETIONS} ${OUTPUT} PARENT_SCOPE)
    endfunction()
    znc_completion(bash bash-completion/completions zncctl)
    znc_completion(zsh zsh/vendor-completions _zncctl)
    znc_completion(fish fish/vendor_completions.d zncctl.fish)
    add_custom_target(completions ALL DEPENDS ${COMPLETIONS})
endif()
