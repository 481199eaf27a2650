# QVLDemoManifestCheck: the content checks of less trusted manifests, included
# by this folder's CMakeLists.txt after qvl_manifest is defined.
add_library(qvl_manifest_check STATIC QVLDemoManifestCheck.cpp QVLDemoManifestCheckEntitlements.cpp)
target_link_libraries(qvl_manifest_check PUBLIC qvl_plist qvl_base qvl_whitelist qvl_codesign qvl_notify)
if(TARGET qvl_manifest)
  target_link_libraries(qvl_manifest PUBLIC qvl_manifest_check)
endif()
qvl_add_test(qvl_manifest_check_test SOURCES QVLDemoManifestCheck_test.cpp LIBS qvl_manifest qvl_test_support)
