# usage: cmake -DNM=<nm> -DLIBRARY=<libkvutil.so> -P check_interface.cmake
# Fails when the library needs anything of the logging library besides its three functions.
execute_process(COMMAND ${NM} --dynamic --undefined-only --demangle ${LIBRARY}
  OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "U [^\n]*Log::[^\n]*" needed "${symbols}")
set(problems "")
foreach(symbol IN LISTS needed)
  if(NOT symbol MATCHES "^U Log::(QmMsg::format|QmLogManager::initialize)[(]")
    string(APPEND problems "  ${symbol}\n")
  endif()
endforeach()
if(NOT needed MATCHES "Log::QmLogManager::initialize")
  string(APPEND problems "  QmLogManager::initialize is not needed: ${needed}\n")
endif()
if(problems)
  message(FATAL_ERROR "The library needs other symbols of the logging library:\n${problems}")
endif()
