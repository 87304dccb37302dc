# The bundle configuration and the container registry.
set(CONTAINERS_SUPPORT ${PROJECT_SOURCE_DIR}/tests/support/alloc_fault.cpp
                       ${PROJECT_SOURCE_DIR}/tests/support/fake_platform.cpp)

znc_unit_test(zncRuntimeSpec_test SOURCES ${PROJECT_SOURCE_DIR}/tests/support/alloc_fault.cpp
              WRAP malloc calloc realloc strdup)
znc_unit_test(zncRuntimeSpec_check_test SOURCES ${PROJECT_SOURCE_DIR}/tests/support/alloc_fault.cpp
              WRAP malloc calloc realloc strdup)
znc_unit_test(zncContextIndex_test NO_SANDBOX)
znc_unit_test(zncContainerLib_test SOURCES ${CONTAINERS_SUPPORT} WRAP malloc calloc realloc strdup)
znc_unit_test(zncContainerLib_rootfs_test SOURCES ${CONTAINERS_SUPPORT} WRAP malloc calloc realloc strdup)
znc_unit_test(zncContainerLib_progress_test)
znc_unit_test(zncTrash_test)
