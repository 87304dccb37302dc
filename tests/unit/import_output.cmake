# What an import writes: archives, compressed layers, documents and layouts.
znc_unit_test(zncimport_ustar_test LIBS zncctl_import)
znc_unit_test(zncimport_emit_test SOURCES ../support/layout_builder.cpp LIBS zncctl_import)
znc_unit_test(zncimport_gzip_test SOURCES ../support/layout_builder.cpp LIBS zncctl_import)
znc_unit_test(zncimport_config_test LIBS zncctl_import)
znc_unit_test(zncimport_layout_test SOURCES ../support/layout_builder.cpp LIBS zncctl_import
              WRAP openat)
