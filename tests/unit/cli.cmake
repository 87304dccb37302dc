# The command table, the parser and the output rules of zncctl, without a daemon.
znc_unit_test(zncctl_test LIBS zncctl_commands)
