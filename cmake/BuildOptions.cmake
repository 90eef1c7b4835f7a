# Options that every target of this tree shares, carried by the interface target veyra-options.

set(VEYRA_SANITIZE "" CACHE STRING "Sanitizers to build with, such as address,undefined or thread")

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

# Timestamps stay right after 2038 and logs grow past 2 GiB on 32-bit targets too.
target_compile_definitions(veyra-options INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)

if(VEYRA_SANITIZE)
  target_compile_options(veyra-options INTERFACE
    -fsanitize=${VEYRA_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(veyra-options INTERFACE -fsanitize=${VEYRA_SANITIZE})
  target_compile_definitions(veyra-options INTERFACE VEYRA_SANITIZED _GLIBCXX_ASSERTIONS)
elseif(CMAKE_BUILD_TYPE STREQUAL "Release")
  target_compile_options(veyra-options INTERFACE
    -fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  target_link_options(veyra-options INTERFACE LINKER:-z,relro,-z,now)
endif()

# The broker worker has 32708 bytes of stack, most of which the resolver may take. A frame of this
# tree's own code takes a sixteenth of it at the most. In what is installed: clang-tidy, which reads the
# debug build's options, does not know this one, and sanitizers need larger frames and stacks.
add_library(veyra-frames INTERFACE)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_BUILD_TYPE STREQUAL "Release")
  target_compile_options(veyra-frames INTERFACE -Wstack-usage=2048)
endif()
