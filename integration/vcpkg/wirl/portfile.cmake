# An overlay port of the sources that it lies in: vcpkg install wirl --overlay-ports=integration/vcpkg
get_filename_component(SOURCE_PATH "${CURRENT_PORT_DIR}/../../.." ABSOLUTE)

vcpkg_check_features(OUT_FEATURE_OPTIONS features
  FEATURES
    filters WIRL_WITH_FILTERS
    toggles WIRL_WITH_TOGGLES
    views WIRL_WITH_VIEWS)
vcpkg_cmake_configure(SOURCE_PATH "${SOURCE_PATH}"
  OPTIONS ${features} -DWIRL_BUILD_TESTS=OFF -DWIRL_BUILD_EXAMPLES=OFF)
vcpkg_cmake_install()
vcpkg_cmake_config_fixup(PACKAGE_NAME Wirl CONFIG_PATH lib/cmake/Wirl)
vcpkg_fixup_pkgconfig()
file(REMOVE_RECURSE "${CURRENT_PACKAGES_DIR}/debug/include" "${CURRENT_PACKAGES_DIR}/debug/share")
vcpkg_install_copyright(FILE_LIST "${SOURCE_PATH}/LICENSE")
