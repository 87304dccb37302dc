# The command table, the parser, the output rules and the checks of zncctl, without a daemon; and what
# the library tells front ends about an unpack.
znc_unit_test(zncctl_test LIBS zncctl_commands)
znc_unit_test(zncctl_escape_test LIBS zncctl_commands NO_SANDBOX)
znc_unit_test(zncctl_pump_test LIBS zncctl_commands)
znc_unit_test(zncctl_usage_test LIBS zncctl_commands)
znc_unit_test(zncctl_image_test SOURCES ../support/layout_builder.cpp LIBS zncctl_commands)
znc_unit_test(zncctl_documents_test SOURCES ../support/layout_builder.cpp LIBS zncctl_commands)
znc_unit_test(zncProgress_test SOURCES ../support/layout_builder.cpp)
