# An overlay port that lies within the sources: vcpkg install kelto-util --overlay-ports=tools
set(SOURCE_PATH "${CURRENT_PORT_DIR}/../..")

if(VCPKG_LIBRARY_LINKAGE STREQUAL "static")
  set(KELTO_STATIC ON)
else()
  set(KELTO_STATIC OFF)
endif()

vcpkg_cmake_configure(
  SOURCE_PATH "${SOURCE_PATH}"
  OPTIONS
    -DKELTO_BUILD_TESTS=OFF
    -DKELTO_BUILD_EXAMPLES=OFF
    -DKELTO_BUILD_STATIC=${KELTO_STATIC})
vcpkg_cmake_install()
vcpkg_cmake_config_fixup(PACKAGE_NAME kelto_util CONFIG_PATH lib/cmake/kelto_util)
vcpkg_fixup_pkgconfig()
vcpkg_copy_tools(TOOL_NAMES kelto-flight kelto-top AUTO_CLEAN)
file(REMOVE_RECURSE "${CURRENT_PACKAGES_DIR}/debug/include" "${CURRENT_PACKAGES_DIR}/debug/share")
vcpkg_install_copyright(FILE_LIST "${SOURCE_PATH}/cmake/debian/copyright")
