# Request and reply messages, the daemon service, the client functions and the inspection document.
znc_unit_test(zncRuntimeCSLib_test
    SOURCES ../support/alloc_fault.cpp WRAP malloc calloc realloc strdup)
znc_unit_test(zncRuntimeClient_test
    SOURCES ../support/fake_daemon.cpp ../support/alloc_fault.cpp WRAP malloc calloc realloc strdup)
znc_unit_test(zncRuntimeClient_reply_test
    SOURCES ../support/alloc_fault.cpp WRAP malloc calloc realloc strdup)
znc_unit_test(zncRuntimeService_test
    SOURCES ../support/fake_daemon.cpp ../support/fake_registry.cpp ../support/alloc_fault.cpp
    WRAP malloc calloc realloc strdup)
znc_unit_test(zncRuntimeService_daemon_test
    SOURCES ../support/fake_daemon.cpp ../support/fake_registry.cpp ../support/alloc_fault.cpp
    WRAP malloc calloc realloc strdup)
znc_unit_test(zncRuntimeService_inspect_test
    SOURCES ../support/fake_registry.cpp ../support/alloc_fault.cpp WRAP malloc calloc realloc strdup)
znc_unit_test(zncRuntimeService_stress_test
    SOURCES ../support/fake_daemon.cpp ../support/fake_registry.cpp)
znc_unit_test(zncRuntimeApi_test
    SOURCES ../support/fake_daemon.cpp ../support/alloc_fault.cpp WRAP malloc calloc realloc strdup)
znc_unit_test(zncRuntimeApi_start_test
    SOURCES ../support/fake_daemon.cpp ../support/alloc_fault.cpp WRAP malloc calloc realloc strdup)
