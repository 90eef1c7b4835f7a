# The gateway's platform library (namespace ZEP). By default the host implementation of this tree
# is built; a firmware build names the gateway's own instead:
#   cmake -DZEP_PLATFORM_ROOT=/path/with/include-and-lib ...

set(ZEP_PLATFORM_ROOT "" CACHE PATH
  "Prefix of the gateway's own platform library (include/ZEP, lib/libzep-platform.so)")

if(ZEP_PLATFORM_ROOT)
  find_library(ZEP_PLATFORM_LIBRARY zep-platform
    PATHS ${ZEP_PLATFORM_ROOT}/lib NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH REQUIRED)
  add_library(zep-platform SHARED IMPORTED)
  set_target_properties(zep-platform PROPERTIES
    IMPORTED_LOCATION ${ZEP_PLATFORM_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${ZEP_PLATFORM_ROOT}/include)
else()
  add_subdirectory(platform)
endif()
