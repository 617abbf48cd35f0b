# What every target of the project is compiled with. Its own C++ standard comes with kvutil_options,
# because a variable for all would also reach the check that the public headers are C++17.
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 99)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# The version stamp is another after each commit; what links the library need not be linked again.
set(CMAKE_LINK_DEPENDS_NO_SHARED ON)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "" FORCE)
endif()

set(cxx_warnings -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor -Woverloaded-virtual)
set(gcc_warnings -Wduplicated-cond -Wlogical-op)
set(clang_warnings -Wdocumentation)

add_library(kvutil_options INTERFACE)
target_compile_features(kvutil_options INTERFACE cxx_std_20)
target_compile_options(kvutil_options INTERFACE
  -Wall -Wextra -Wpedantic
  "$<$<COMPILE_LANGUAGE:CXX>:${cxx_warnings}>"
  "$<$<COMPILE_LANG_AND_ID:CXX,GNU>:${gcc_warnings}>"
  "$<$<COMPILE_LANG_AND_ID:CXX,Clang>:${clang_warnings}>"
  $<$<BOOL:${KVUTIL_WERROR}>:-Werror>
  # `unsigned short` and `char16_t` texts meet in one helper with a barrier; this covers what a
  # caller's own casts of the same pointers could otherwise break in inlined code.
  -fno-strict-aliasing)

# The same bytes wherever the source lies: no path of the machine in objects or in run paths.
add_compile_options(
  -ffile-prefix-map=${PROJECT_BINARY_DIR}=build
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)

if(NOT KVUTIL_SIMD)
  add_compile_definitions(KVUTIL_PORTABLE)
endif()
if(KVUTIL_SANITIZE)
  add_compile_options(-fsanitize=${KVUTIL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KVUTIL_SANITIZE})
  if(KVUTIL_SANITIZE MATCHES undefined)
    # Programs in C call a library in C++, whose checks have a run-time of their own.
    add_link_options("$<$<LINK_LANG_AND_ID:C,Clang>:-fsanitize-link-c++-runtime;-lstdc++>")
  endif()
endif()
if(KVUTIL_BUILD_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
# A write beyond a buffer ends the process instead of going on, and what the loader fills in is read-only
# from then on. Sanitizers see more than that.
add_library(kvutil_hardened INTERFACE)
if(NOT KVUTIL_SANITIZE)
  target_compile_options(kvutil_hardened INTERFACE -fstack-protector-strong)
  target_compile_definitions(kvutil_hardened INTERFACE $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
  target_link_options(kvutil_hardened INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
endif()
# The headers of the tests, read once for all programs. The default build goes without, so that each source
# includes what it needs.
option(KVUTIL_TEST_PCH "Precompile the headers of the tests" OFF)
# Lines are counted in the libraries only, which is what kvutil_counted is linked to.
add_library(kvutil_counted INTERFACE)
if(KVUTIL_COVERAGE)
  target_compile_options(kvutil_counted INTERFACE --coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()
