# What every target of the project is compiled with.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 99)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "" FORCE)
endif()

set(cxx_warnings -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor -Woverloaded-virtual)
set(gcc_warnings -Wduplicated-cond -Wlogical-op)
set(clang_warnings -Wdocumentation -Wthread-safety)

add_library(kvutil_options INTERFACE)
target_compile_options(kvutil_options INTERFACE
  -Wall -Wextra -Wpedantic
  "$<$<COMPILE_LANGUAGE:CXX>:${cxx_warnings}>"
  "$<$<COMPILE_LANG_AND_ID:CXX,GNU>:${gcc_warnings}>"
  "$<$<COMPILE_LANG_AND_ID:CXX,Clang>:${clang_warnings}>"
  $<$<BOOL:${KVUTIL_WERROR}>:-Werror>
  # `unsigned short` and `char16_t` texts meet in one helper with a barrier; this covers what a
  # caller's own casts of the same pointers could otherwise break in inlined code.
  -fno-strict-aliasing)

if(KVUTIL_SANITIZE)
  add_compile_options(-fsanitize=${KVUTIL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KVUTIL_SANITIZE})
endif()
