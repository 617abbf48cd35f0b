# usage: cmake -DNM=<nm> -DLIBRARY=<libkvutil.so> -P check_interface.cmake
# Fails unless what the library needs of the logging library is the three functions of its interface.
execute_process(COMMAND ${NM} --dynamic --undefined-only --demangle ${LIBRARY}
  OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "Log::[A-Za-z]+::[^\n]*" needed "${symbols}")
set(string "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> > const&")
set(interface
  "Log::QmLogManager::initialize(${string}, ${string}, ${string}, int, ${string})"
  "Log::QmMsg::format(char const**, int, char const*)"
  "Log::QmMsg::format(char const*, cxPrintfArgVal*)")
list(SORT interface)
list(SORT needed)
list(JOIN needed "\n  " found)
list(JOIN interface "\n  " expected)
if(NOT found STREQUAL expected)
  message(FATAL_ERROR "needed:\n  ${found}\nexpected:\n  ${expected}")
endif()
