# The Debian packages: libzncontainer1, libzncontainer-dev, zncontainer-tools, zncontainer-import and
# zncontainer-oci; "znc" is the name of another program. scripts/package.sh builds them.
set(ZNC_PACKAGE_MAINTAINER "zncontainer maintainers <zncontainer@${CMAKE_PROJECT_NAME}.example.org>"
    CACHE STRING "Name and address that the packages show as their maintainer's")
set(ZNC_PACKAGE_RELEASE 1)
set(ZNC_DEBIAN ${ZNC_PACKAGING}/debian)

set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PACKAGE_NAME zncontainer)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# Empty: each package has its own summary; the default would become the first line of all of them.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_CONTACT ${ZNC_PACKAGE_MAINTAINER})
set(CPACK_COMPONENTS_ALL library dev tools oci)
if(TARGET zncctl-import)
    list(APPEND CPACK_COMPONENTS_ALL import)
endif()
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
# The prefix of the packages does not depend on that of the build.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${ZNC_PACKAGING}/finish_staging.cmake)
set(CPACK_OUTPUT_FILE_PREFIX ${CMAKE_BINARY_DIR}/debs)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${ZNC_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SOURCE zncontainer)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(ZNC_SAME_VERSION "(= ${PROJECT_VERSION}-${ZNC_PACKAGE_RELEASE})")

set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "container runtime library on the OCI formats
Unpacks OCI images into runtime bundles; creates, starts, signals, lists,
inspects and deletes containers made from them, through a daemon.
.
This package contains the shared library.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libzncontainer1)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SUGGESTS zncontainer-tools)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${ZNC_DEBIAN}/triggers)

set(CPACK_COMPONENT_DEV_DESCRIPTION "container runtime library on the OCI formats (development)
Unpacks OCI images into runtime bundles; creates, starts, signals, lists,
inspects and deletes containers made from them, through a daemon.
.
This package contains the headers, the files for CMake and pkg-config, the
manual pages of the functions, and examples.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzncontainer-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libzncontainer1 ${ZNC_SAME_VERSION}")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS libcjson-dev)

set(CPACK_COMPONENT_TOOLS_DESCRIPTION "container daemon and its command line
Runs containers from OCI images: zncd is the daemon that makes their
namespaces, root filesystems and mounts; zncctl unpacks images and creates,
starts, signals, inspects and deletes containers.
.
The daemon is started when the package is installed.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zncontainer-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libzncontainer1 ${ZNC_SAME_VERSION}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "passt, systemd, zncontainer-import")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS skopeo) # for zncctl pull
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA
    ${ZNC_DEBIAN}/postinst ${ZNC_DEBIAN}/prerm ${ZNC_DEBIAN}/postrm)

# A separate package, because only this program needs libraries that are many times as large as the rest.
set(CPACK_COMPONENT_IMPORT_DESCRIPTION "import of container images of any kind
Lets \"zncctl import\" turn images with whiteouts, hard links, extended
headers or other compressions, in archives or layouts, and root filesystems
into image layouts that the container runtime library unpacks.")
set(CPACK_DEBIAN_IMPORT_PACKAGE_NAME zncontainer-import)
set(CPACK_DEBIAN_IMPORT_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_IMPORT_PACKAGE_DEPENDS
    "libzncontainer1 ${ZNC_SAME_VERSION}, zncontainer-tools ${ZNC_SAME_VERSION}")

# A separate package, because container engines need only this program.
set(CPACK_COMPONENT_OCI_DESCRIPTION "container runtime for container engines
Lets podman, containerd, docker and CRI-O run containers: zncrun has
the command line that they expect of an OCI runtime. It needs no daemon.")
set(CPACK_DEBIAN_OCI_PACKAGE_NAME zncontainer-oci)
set(CPACK_DEBIAN_OCI_PACKAGE_SECTION admin)
if(ZNC_WITH_SYSTEMD)
    set(CPACK_DEBIAN_OCI_PACKAGE_RECOMMENDS "libsystemd0 (>= 246)") # for --systemd-cgroup; loaded when it is used
endif()
set(CPACK_DEBIAN_OCI_PACKAGE_ENHANCES "podman, containerd, docker.io")

# The copyright and the changelog of each package.
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} COMPONENT)
    install(FILES ${ZNC_DEBIAN}/copyright
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME}
        COMPONENT ${component} EXCLUDE_FROM_ALL)
    install(FILES ${ZNC_DEBIAN}/changelog RENAME changelog.Debian
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME}
        COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
