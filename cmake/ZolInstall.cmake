# How users find the installed libraries: by CMake, find_package(ZOLClientLib 1 REQUIRED) gives ZOL::ClientLib and,
# also as components, ZOL::NuboLib, ZOL::CommunicationLib and ZOL::UtilLib; by pkg-config, zolclientlib and so on.
include(CMakePackageConfigHelpers)
set(ZOL_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZOLClientLib)
install(EXPORT ZOLClientLibTargets NAMESPACE ZOL:: DESTINATION ${ZOL_PACKAGE_DIR} COMPONENT dev)
configure_package_config_file(cmake/ZOLClientLibConfig.cmake.in ${PROJECT_BINARY_DIR}/ZOLClientLibConfig.cmake
                              INSTALL_DESTINATION ${ZOL_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZOLClientLibConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ZOLClientLibConfig.cmake
        ${PROJECT_BINARY_DIR}/ZOLClientLibConfigVersion.cmake DESTINATION ${ZOL_PACKAGE_DIR} COMPONENT dev)

# zol_install_pc(LIBRARY DESCRIPTION [REQUIRES name...] [CFLAGS flag...] [LIBS flag...])
function(zol_install_pc library description)
  cmake_parse_arguments(arg "" "" "REQUIRES;CFLAGS;LIBS" ${ARGN})
  set(PC_NAME ${library})
  set(PC_DESCRIPTION ${description})
  list(JOIN arg_REQUIRES ", " PC_REQUIRES)
  list(JOIN arg_CFLAGS " " PC_CFLAGS)
  list(JOIN arg_LIBS " " PC_LIBS)
  # The files name no fixed folder: an installation may be moved as a whole.
  file(RELATIVE_PATH PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  string(TOLOWER ${library} name)
  configure_file(cmake/zol.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endfunction()

# POCO has no pkg-config files. POCO_UNBUNDLED: Debian's POCO uses the system's zlib, its headers must be told.
set(poco -lPocoNet -lPocoJSON -lPocoFoundation -pthread)
if(ZOL_PLATFORM_LIBRARIES)
  list(TRANSFORM ZOL_PLATFORM_INCLUDE_DIRS PREPEND -I OUTPUT_VARIABLE platform_cflags)
  zol_install_pc(ZOLClientLib ${PROJECT_DESCRIPTION} CFLAGS ${platform_cflags} -DPOCO_UNBUNDLED
                 LIBS ${ZOL_PLATFORM_LIBRARIES} ${poco})
else()
  zol_install_pc(ZOLUtilLib "Logging, message and JSON helpers of the service platform"
                 CFLAGS -DPOCO_UNBUNDLED LIBS ${poco})
  zol_install_pc(ZOLNuboLib "Vocabulary of the service platform" REQUIRES zolutillib)
  zol_install_pc(ZOLCommunicationLib "WebSocket transport of the service platform" REQUIRES zolutillib)
  zol_install_pc(ZOLClientLib ${PROJECT_DESCRIPTION} REQUIRES zolnubolib zolcommunicationlib)
endif()

# Manual pages of the programs, compressed as Debian wants them: at the best level, without name and time.
file(GLOB pages CONFIGURE_DEPENDS docs/man/*.1)
find_program(GZIP_EXECUTABLE gzip REQUIRED)
foreach(page ${pages})
  get_filename_component(name ${page} NAME)
  set(compressed ${PROJECT_BINARY_DIR}/man/${name}.gz)
  add_custom_command(OUTPUT ${compressed} COMMAND ${GZIP_EXECUTABLE} -9nc ${page} > ${compressed} DEPENDS ${page}
                     VERBATIM)
  list(APPEND compressed_pages ${compressed})
endforeach()
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/man)
add_custom_target(zol-man ALL DEPENDS ${compressed_pages})
install(FILES ${compressed_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
