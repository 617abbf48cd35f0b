# kvutil_require(<package> <Debian package> [find_package() arguments...]): finds the package or
# says how to get it.
macro(kvutil_require package debian_package)
  find_package(${package} QUIET ${ARGN})
  if(NOT ${package}_FOUND)
    message(FATAL_ERROR
      "${package} was not found (Debian package ${debian_package}).\n"
      "Run scripts/bootstrap: it installs everything that the build needs.")
  endif()
endmacro()
