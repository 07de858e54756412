# How every target of the project is built; one function for libraries, one for the settings that all share.

# zol_target_options(TARGET): warnings, and the sanitizers asked for.
function(zol_target_options target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
                         -Woverloaded-virtual -Wcast-qual $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
  if(ZOL_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(ZOL_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${ZOL_SANITIZE} -fno-omit-frame-pointer
                           -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${ZOL_SANITIZE})
  endif()
endfunction()

# zol_add_library(NAME EXPORT_NAME INCLUDE_DIR SOURCES...): an installed library with its include folder,
# known inside the build and to users of the package as ZOL::EXPORT_NAME.
function(zol_add_library name export_name include_dir)
  add_library(${name} ${ARGN})
  add_library(ZOL::${export_name} ALIAS ${name})
  set_target_properties(${name} PROPERTIES EXPORT_NAME ${export_name} VERSION ${PROJECT_VERSION}
                        SOVERSION ${PROJECT_VERSION_MAJOR})
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${include_dir}>
                             $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/ZOLClientLib>)
  target_compile_features(${name} PUBLIC cxx_std_17)
  zol_target_options(${name})
  install(TARGETS ${name} EXPORT ZOLClientLibTargets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
  install(DIRECTORY ${include_dir}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ZOLClientLib COMPONENT dev)
endfunction()
