# Namespaces, spawning and overlay devices, on the real kernel.
znc_unit_test(ns_test)
znc_unit_test(ns_hostile_test)
znc_unit_test(overlay_test)
znc_unit_test(mount_plan_test)
znc_unit_test(keeper_link_test)
foreach(NAME ns_test ns_hostile_test overlay_test mount_plan_test keeper_link_test)
    target_include_directories(${NAME} PRIVATE ${PROJECT_SOURCE_DIR}/platform/linux)
endforeach()
