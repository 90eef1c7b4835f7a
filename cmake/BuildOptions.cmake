# Options that every target of this tree shares, carried by the interface target veyra-options.

set(VEYRA_SANITIZE "" CACHE STRING "Sanitizers to build with, such as address,undefined or thread")

if(PROJECT_IS_TOP_LEVEL AND NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  message(STATUS "No build type was given; using Release")
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Debug, Release, RelWithDebInfo or MinSizeRel" FORCE)
endif()

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

include(CheckPIESupported)
check_pie_supported()

add_library(veyra-options INTERFACE)
target_compile_options(veyra-options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
  -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wformat=2 -Wundef)

# On 32-bit targets too, timestamps must be correct after 2038 and logs may exceed 2 GiB.
target_compile_definitions(veyra-options INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)

# The same sources give the same bytes, wherever and whenever they are built. The installation
# overwrites the search path of a program in place, so the length of the old path must not depend on
# the build directory.
target_compile_options(veyra-options INTERFACE -Wdate-time
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=build)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

# Sanitizers need larger frames and stacks. They may be enabled here or by the user's own flags.
set(sanitizers "${VEYRA_SANITIZE}")
string(TOUPPER "${CMAKE_BUILD_TYPE}" buildType)
if("${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${buildType}}" MATCHES "-fsanitize=([^ ]+)")
  set(sanitizers "${CMAKE_MATCH_1}")
endif()

if(VEYRA_SANITIZE)
  target_compile_options(veyra-options INTERFACE
    -fsanitize=${VEYRA_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(veyra-options INTERFACE -fsanitize=${VEYRA_SANITIZE})
endif()
if(sanitizers)
  target_compile_definitions(veyra-options INTERFACE VEYRA_SANITIZED _GLIBCXX_ASSERTIONS)
else()
  set(optimised $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
  target_compile_options(veyra-options INTERFACE
    "$<${optimised}:-fstack-protector-strong;-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
  target_link_options(veyra-options INTERFACE "$<${optimised}:LINKER:-z,relro,-z,now>")
endif()

# The broker worker has 32708 bytes of stack, and the resolver may use most of it. A frame of this
# tree's own code may use at most a sixteenth. Release builds only: clang-tidy reads the options of
# the debug build and does not know this one.
add_library(veyra-frames INTERFACE)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND NOT sanitizers)
  target_compile_options(veyra-frames INTERFACE $<$<CONFIG:Release>:-Wstack-usage=2048>)
endif()
