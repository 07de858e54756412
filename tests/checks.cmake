# Checks of what users get: the exported symbols, the public headers, the manual pages, the installed package.

# --- Interface ---

if(BUILD_SHARED_LIBS AND NOT ZOL_SANITIZE AND NOT ZOL_PLATFORM_LIBRARIES)
  foreach(library ZOLClientLib ZOLNuboLib ZOLCommunicationLib ZOLUtilLib)
    add_test(NAME Symbols.${library}
             COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/symbols/check ${CMAKE_CURRENT_SOURCE_DIR}/symbols/${library}.txt
                     $<TARGET_FILE:${library}> ${CMAKE_NM})
    set_tests_properties(Symbols.${library} PROPERTIES LABELS interface)
  endforeach()
endif()

if(NOT CMAKE_CROSSCOMPILING AND NOT ZOL_SANITIZE)
  file(GLOB include_dirs ${PROJECT_SOURCE_DIR}/platform/*/include)
  add_test(NAME PublicHeaders
           COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/check-headers ${PROJECT_SOURCE_DIR}/include ${include_dirs})
  set_tests_properties(PublicHeaders PROPERTIES LABELS interface TIMEOUT 600)
endif()

if(NOT CMAKE_CROSSCOMPILING)
  foreach(program zolctl zol-platform)
    add_test(NAME Manual.${program} COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/check-manual $<TARGET_FILE:${program}>
                                            ${PROJECT_SOURCE_DIR}/docs/man/${program}.1)
    set_tests_properties(Manual.${program} PROPERTIES LABELS interface)
  endforeach()
endif()

# --- Package ---

# zol_add_install_test(NAME TEST): see install/run.cmake. The user's program looks for a registry.
function(zol_add_install_test name test)
  set(flags "")
  if(ZOL_SANITIZE)
    set(flags -fsanitize=${ZOL_SANITIZE})
  endif()
  add_test(NAME ${name}
           COMMAND ${CMAKE_COMMAND} -D TEST=${test} -D SOURCE_DIR=${PROJECT_SOURCE_DIR} -D BUILD_DIR=${PROJECT_BINARY_DIR}
                   -D WORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/install/${test} -D COMPILER=${CMAKE_CXX_COMPILER}
                   -D VERSION=${PROJECT_VERSION} -D FLAGS=${flags} -P ${CMAKE_CURRENT_SOURCE_DIR}/install/run.cmake)
  set_tests_properties(${name} PROPERTIES LABELS package RESOURCE_LOCK registry TIMEOUT 900)
endfunction()

if(BUILD_SHARED_LIBS AND NOT CMAKE_CROSSCOMPILING AND NOT ZOL_PLATFORM_LIBRARIES)
  zol_add_install_test(InstalledPackage shared)
  if(NOT ZOL_SANITIZE)
    zol_add_install_test(StaticPackage static)
    zol_add_install_test(UnitsOwnPlatform seam)
  endif()
endif()
