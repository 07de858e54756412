# The CMake package: find_package(ZOLClientLib) gives ZOL::ClientLib.
include(CMakePackageConfigHelpers)
set(ZOL_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZOLClientLib)
install(EXPORT ZOLClientLibTargets NAMESPACE ZOL:: DESTINATION ${ZOL_PACKAGE_DIR})
configure_package_config_file(cmake/ZOLClientLibConfig.cmake.in ${PROJECT_BINARY_DIR}/ZOLClientLibConfig.cmake
                              INSTALL_DESTINATION ${ZOL_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZOLClientLibConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ZOLClientLibConfig.cmake
        ${PROJECT_BINARY_DIR}/ZOLClientLibConfigVersion.cmake DESTINATION ${ZOL_PACKAGE_DIR})
