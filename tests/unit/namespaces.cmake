# Namespaces, spawning and overlay devices, on the real kernel.
znc_unit_test(ns_test)
znc_unit_test(ns_hostile_test)
znc_unit_test(ns_end_test)
znc_unit_test(overlay_test)
znc_unit_test(overlay_device_test)
znc_unit_test(mount_plan_test)
znc_unit_test(keeper_link_test)
znc_unit_test(requirement_test)
foreach(NAME ns_test ns_hostile_test ns_end_test overlay_test overlay_device_test
        mount_plan_test keeper_link_test)
    target_include_directories(${NAME} PRIVATE ${PROJECT_SOURCE_DIR}/platform/linux)
endforeach()
