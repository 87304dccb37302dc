# What an import reads: streams, archives, layouts, directories.
znc_unit_test(zncimport_stream_test LIBS zncctl_import)
znc_unit_test(zncimport_archive_test SOURCES ../support/tarforge.cpp LIBS zncctl_import)
znc_unit_test(zncimport_source_test LIBS zncctl_import)
znc_unit_test(zncimport_directory_test LIBS zncctl_import)
