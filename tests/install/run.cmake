# cmake -D TEST=shared|static|seam -D SOURCE_DIR=... -D BUILD_DIR=... -D WORK_DIR=... -D COMPILER=... -D VERSION=...
#       [-D FLAGS=...] -P run.cmake
# Installs the library into a fresh folder, in one of three ways, and builds and runs a user's project against it, by
# CMake and by pkg-config.
#   shared: the build in BUILD_DIR, moved to another place after it was installed
#   static: a build of its own with BUILD_SHARED_LIBS=OFF
#   seam:   a build of its own on messaging libraries that are installed elsewhere, in place of those in platform/
cmake_minimum_required(VERSION 3.22)
set(prefix ${WORK_DIR}/prefix)
set(user ${CMAKE_CURRENT_LIST_DIR})

function(run)
  execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# build_project(TARGETS... OPTIONS -D...): a build of the project in WORK_DIR/build.
function(build_project)
  cmake_parse_arguments(arg "" "" "TARGETS;OPTIONS" ${ARGN})
  run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build -G Ninja -D CMAKE_CXX_COMPILER=${COMPILER}
      -D CMAKE_BUILD_TYPE=Debug -D CMAKE_CXX_FLAGS_DEBUG=-O0 -D BUILD_TESTING=OFF ${arg_OPTIONS})
  run(${CMAKE_COMMAND} --build ${WORK_DIR}/build --target ${arg_TARGETS})
endfunction()

function(install_from build prefix)
  foreach(component runtime dev)
    run(${CMAKE_COMMAND} --install ${build} --prefix ${prefix} --component ${component})
  endforeach()
endfunction()

function(use_by_cmake)
  run(${CMAKE_COMMAND} -S ${user} -B ${WORK_DIR}/user -G Ninja -D CMAKE_CXX_COMPILER=${COMPILER}
      -D CMAKE_CXX_FLAGS=${FLAGS} -D CMAKE_PREFIX_PATH=${prefix})
  run(${CMAKE_COMMAND} --build ${WORK_DIR}/user)
  run(${WORK_DIR}/user/user)
  run(${WORK_DIR}/user/words)
endfunction()

function(ask_pkg_config result)
  execute_process(COMMAND pkg-config ${ARGN} OUTPUT_VARIABLE answer OUTPUT_STRIP_TRAILING_WHITESPACE
                  COMMAND_ERROR_IS_FATAL ANY)
  set(${result} "${answer}" PARENT_SCOPE)
endfunction()

function(use_by_pkg_config)
  file(GLOB_RECURSE pc ${prefix}/zolclientlib.pc)
  get_filename_component(folder "${pc}" DIRECTORY)
  set(ENV{PKG_CONFIG_PATH} "${folder}")
  ask_pkg_config(version --modversion zolclientlib)
  if(NOT version STREQUAL VERSION)
    message(FATAL_ERROR "zolclientlib.pc is of version ${version}, the project of ${VERSION}")
  endif()
  ask_pkg_config(flags --cflags --libs zolclientlib)
  separate_arguments(flags UNIX_COMMAND "${flags}")
  ask_pkg_config(libdir --variable=libdir zolclientlib)
  run(${COMPILER} -std=c++17 ${FLAGS} ${user}/main.cpp -o ${WORK_DIR}/user-pc ${flags})
  run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${libdir}:${platform_libdir} ${WORK_DIR}/user-pc)
endfunction()

function(use_tools)
  foreach(program zolctl zol-platform)
    run(${prefix}/bin/${program} --version)
    run(gzip -t ${prefix}/share/man/man1/${program}.1.gz)
  endforeach()
  run(bash -n ${prefix}/share/bash-completion/completions/zolctl)
endfunction()

# install_stand_in(FOLDER): the stand-in as a unit would have its libraries: only the platform's headers and libraries.
function(install_stand_in unit)
  install_from(${BUILD_DIR} ${unit})
  file(REMOVE_RECURSE ${unit}/include/ZOLClientLib/Nubo/Client)
  file(GLOB_RECURSE others ${unit}/*ZOLClientLib*.so* ${unit}/*.cmake ${unit}/*.pc)
  file(REMOVE ${others})
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
if("${TEST}" STREQUAL shared)
  install_from(${BUILD_DIR} ${WORK_DIR}/first)
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/first --component tools)
  file(RENAME ${WORK_DIR}/first ${prefix})
  use_tools()
elseif("${TEST}" STREQUAL static)
  build_project(TARGETS ZOLClientLib OPTIONS -D BUILD_SHARED_LIBS=OFF)
  install_from(${WORK_DIR}/build ${prefix})
elseif("${TEST}" STREQUAL seam)
  # Outside of the project's folder, as on a unit: CMake exports no include folder from inside of it.
  execute_process(COMMAND mktemp -d OUTPUT_VARIABLE unit OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  install_stand_in(${unit})
  file(GLOB_RECURSE libraries ${unit}/*.so)
  list(LENGTH libraries count)
  list(GET libraries 0 any)
  get_filename_component(platform_libdir ${any} DIRECTORY)
  if(NOT count EQUAL 3)
    message(FATAL_ERROR "not the three platform libraries: ${libraries}")
  endif()
  file(WRITE ${WORK_DIR}/unit.cmake "set(ZOL_PLATFORM_LIBRARIES \"${libraries}\" CACHE STRING \"\")\n"
       "set(ZOL_PLATFORM_INCLUDE_DIRS ${unit}/include/ZOLClientLib CACHE STRING \"\")\n")
  build_project(TARGETS quickstart OPTIONS -C ${WORK_DIR}/unit.cmake)
  run(${WORK_DIR}/build/bin/quickstart)
  file(GLOB_RECURSE own ${WORK_DIR}/build/*ZOLUtilLib*)
  if(own)
    message(FATAL_ERROR "built in spite of the unit's own: ${own}")
  endif()
  install_from(${WORK_DIR}/build ${prefix})
endif()
use_by_cmake()
use_by_pkg_config()
if(unit)
  file(REMOVE_RECURSE ${unit})
endif()
