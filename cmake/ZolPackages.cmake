# Debian packages, by cpack in the build folder: the libraries, what is needed to compile against them, the programs.
# What an installed library or program needs is found out by dpkg-shlibdeps.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zolclientlib)
set(CPACK_PACKAGE_CONTACT "ZOLClientLib developers <zolclientlib@example.org>" CACHE STRING
    "Whom the Debian packages name as their maintainer")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/ClientLib
    ${PROJECT_BINARY_DIR}/platform/ZOLUtilLib ${PROJECT_BINARY_DIR}/platform/ZOLCommunicationLib
    ${PROJECT_BINARY_DIR}/platform/ZOLNuboLib)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzolclientlib${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION}")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzolclientlib-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libpoco-dev (>= 1.11)")
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_DEV_DESCRIPTION "${PROJECT_DESCRIPTION}: headers, CMake package, pkg-config files")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zolclientlib-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "${PROJECT_DESCRIPTION}: command line and simulated platform")

# For another machine dpkg-shlibdeps has nothing to go by: the packages that the cross-build was made against.
if(CMAKE_CROSSCOMPILING)
  if(CMAKE_SYSTEM_PROCESSOR STREQUAL aarch64)
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
  endif()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libpocofoundation80, libpoconet80, libpocojson80, libstdc++6 (>= 12)")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS libpocoutil80)
endif()
include(CPack)
