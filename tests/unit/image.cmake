# Images: digests, the layout reader, unpacking, the generated configuration, inspection.
set(IMAGE_SUPPORT ../support/layout_builder.cpp)
set(IMAGE_FAULTS ../support/alloc_fault.cpp)
set(IMAGE_WRAP malloc calloc realloc strdup)

znc_unit_test(zncWorkAhead_test NO_SANDBOX)
znc_unit_test(zncDigest_test SOURCES ${IMAGE_SUPPORT})
znc_unit_test(zncBlob_test SOURCES ${IMAGE_SUPPORT})
znc_unit_test(zncStoreCollect_test SOURCES ${IMAGE_SUPPORT} ../support/fake_platform.cpp)
znc_unit_test(zncImageLib_validate_test SOURCES ${IMAGE_SUPPORT})
znc_unit_test(zncImageLib_layout_test SOURCES ${IMAGE_SUPPORT} ${IMAGE_FAULTS} WRAP ${IMAGE_WRAP})
znc_unit_test(zncImageLib_config_test SOURCES ${IMAGE_SUPPORT} ${IMAGE_FAULTS} WRAP ${IMAGE_WRAP})
znc_unit_test(zncImageLib_inspect_test SOURCES ${IMAGE_SUPPORT} ${IMAGE_FAULTS} WRAP ${IMAGE_WRAP})
znc_unit_test(zncRuntimeApi_image_test SOURCES ${IMAGE_SUPPORT} ${IMAGE_FAULTS} WRAP ${IMAGE_WRAP})
znc_unit_test(zncImageLib_test SOURCES ${IMAGE_SUPPORT} ${IMAGE_FAULTS} ../support/fake_platform.cpp
              WRAP ${IMAGE_WRAP})
target_link_options(zncImageLib_test PRIVATE -Wl,--wrap=openat)
znc_unit_test(zncImageLib_ahead_test SOURCES ${IMAGE_SUPPORT} ${IMAGE_FAULTS} ../support/fake_platform.cpp
              WRAP ${IMAGE_WRAP})
target_link_options(zncImageLib_ahead_test PRIVATE
    -Wl,--wrap=mbedtls_sha256_finish_ret -Wl,--wrap=mbedtls_sha256_finish -Wl,--wrap=pthread_create)
