# What the client library stands on: the stand-in in platform/, or the messaging libraries of a unit. These have the
# stand-in's headers, which are the contract; their libraries may be any number of files, linked in the order given.
set(ZOL_PLATFORM_LIBRARIES "" CACHE STRING "The unit's own messaging libraries in place of platform/: files, in link order")
set(ZOL_PLATFORM_INCLUDE_DIRS "" CACHE STRING "The include folders of ZOL_PLATFORM_LIBRARIES")

if(ZOL_PLATFORM_LIBRARIES)
  if(NOT ZOL_PLATFORM_INCLUDE_DIRS)
    message(FATAL_ERROR "ZOL_PLATFORM_LIBRARIES needs ZOL_PLATFORM_INCLUDE_DIRS: the folder that holds Nubo/Export.h")
  endif()
  add_library(ZOLPlatform INTERFACE)
  set_target_properties(ZOLPlatform PROPERTIES EXPORT_NAME Platform)
  target_compile_features(ZOLPlatform INTERFACE cxx_std_17)
  target_include_directories(ZOLPlatform SYSTEM INTERFACE ${ZOL_PLATFORM_INCLUDE_DIRS})
  target_link_libraries(ZOLPlatform INTERFACE ${ZOL_PLATFORM_LIBRARIES} Poco::Net Poco::JSON Poco::Foundation
                        Threads::Threads)
  install(TARGETS ZOLPlatform EXPORT ZOLClientLibTargets)
  foreach(library NuboLib CommunicationLib UtilLib)
    add_library(ZOL::${library} ALIAS ZOLPlatform)
  endforeach()
else()
  add_subdirectory(platform/ZOLUtilLib)
  add_subdirectory(platform/ZOLCommunicationLib)
  add_subdirectory(platform/ZOLNuboLib)
endif()
