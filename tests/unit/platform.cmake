# The platform's simple facilities.
znc_unit_test(fs_test)
znc_unit_test(msgq_test)
znc_unit_test(mutex_test)
znc_unit_test(signal_test)
znc_unit_test(task_test)
znc_unit_test(terminal_test LIBS util)
