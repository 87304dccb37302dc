# The merged tree of an image: layers put upon each other, and its shape for the new layer.
znc_unit_test(zncimport_tree_test LIBS zncctl_import)
znc_unit_test(zncimport_merge_test LIBS zncctl_import)
znc_unit_test(zncimport_merge_model_test LIBS zncctl_import)
znc_unit_test(zncimport_prepare_test LIBS zncctl_import)
znc_unit_test(zncimport_report_test LIBS zncctl_import)
