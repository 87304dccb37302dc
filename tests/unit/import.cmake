# zncctl-import: what the user asked for, what its two processes tell each other, and what the one that
# reads images can no longer do.
znc_unit_test(zncimport_options_test LIBS zncctl_import zncontainer)
znc_unit_test(zncimport_outcome_test LIBS zncctl_import zncontainer)
znc_unit_test(zncimport_confine_test LIBS zncctl_import zncontainer)
znc_unit_test(zncimport_hostile_test SOURCES ../support/layout_builder.cpp LIBS zncctl_import)
