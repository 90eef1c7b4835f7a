# The gateway's platform library (namespace ZEP). By default the host implementation of this tree
# is built; a firmware build uses the gateway's own library instead:
#   cmake -DZEP_PLATFORM_ROOT=/path/with/include-and-lib ...

set(ZEP_PLATFORM_ROOT "" CACHE PATH
  "Prefix of the gateway's own platform library (include/ZEP, lib/libzep-platform.so)")

if(NOT ZEP_PLATFORM_ROOT)
  add_subdirectory(platform)
  return()
endif()

# Searched again each time, because an existing build directory may be configured with another root.
find_library(zepLibrary zep-platform NO_CACHE
  PATHS ${ZEP_PLATFORM_ROOT} PATH_SUFFIXES lib/${CMAKE_LIBRARY_ARCHITECTURE} lib lib64
  NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
if(NOT zepLibrary OR NOT EXISTS "${ZEP_PLATFORM_ROOT}/include/ZEP/Logger.h")
  message(FATAL_ERROR "ZEP_PLATFORM_ROOT is ${ZEP_PLATFORM_ROOT}. Required there: include/ZEP/Logger.h, "
    "and libzep-platform.so in lib, lib64 or lib/${CMAKE_LIBRARY_ARCHITECTURE}")
endif()

# The dynamic loader searches for the SONAME of a library. Without one the linker records the path
# of the file.
execute_process(COMMAND ${CMAKE_OBJDUMP} -p ${zepLibrary} OUTPUT_VARIABLE zepHeaders
  COMMAND_ERROR_IS_FATAL ANY)
if(NOT zepHeaders MATCHES "SONAME +([^ \n]+)")
  message(FATAL_ERROR "${zepLibrary} has no SONAME, so the programs would look for it at this path on the "
    "gateway as well. Link the library with -Wl,-soname,libzep-platform.so.1")
endif()
set(zepSoname ${CMAKE_MATCH_1})
cmake_path(GET zepLibrary PARENT_PATH zepDirectory)
if(NOT EXISTS "${zepDirectory}/${zepSoname}")
  message(FATAL_ERROR "The programs would look for ${zepSoname}, the SONAME of ${zepLibrary}, and "
    "${zepDirectory} has no such file. Install the library under that name, or add a link.")
endif()

add_library(zep-platform SHARED IMPORTED)
set_target_properties(zep-platform PROPERTIES
  IMPORTED_LOCATION ${zepLibrary}
  IMPORTED_SONAME ${zepSoname}
  INTERFACE_INCLUDE_DIRECTORIES ${ZEP_PLATFORM_ROOT}/include)
