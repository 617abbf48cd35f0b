# What the library says of its own build: its version line and its identification block. The
# defaults name nothing of the machine, so that two builds of one commit are the same bytes. The
# time is SOURCE_DATE_EPOCH, otherwise that of the commit, otherwise the epoch itself.
set(KVUTIL_BUILD_USER "unknown" CACHE STRING "Login name of the user who builds, for the identification block")
set(KVUTIL_BUILD_HOST "unknown" CACHE STRING "Name of the build's host, for the identification block")
set(KVUTIL_BUILD_KERNEL "unknown" CACHE STRING "Kernel release of the build's host, for the identification block")
set(KVUTIL_BUILD_VIEW "unknown" CACHE STRING "Version-control view of the build, for the identification block")
set(KVUTIL_BUILD_BASELINE "" CACHE STRING "Name of the sources' baseline, for the identification block; empty: the commit")
set(KVUTIL_BUILD_ID "0" CACHE STRING "Number of the build of a version, for the identification block")

# kvutil_version_stamp(<library> <source>): lets the source include version_stamp.h. It is checked in
# every build and written when something has changed, such as the commit.
function(kvutil_version_stamp library source)
  set(directory ${CMAKE_CURRENT_BINARY_DIR}/version_stamp)
  set(script ${PROJECT_SOURCE_DIR}/cmake/write_version_stamp.cmake)
  string(REGEX MATCH "^[0-9]+[.][0-9]+[.][0-9]+[.][0-9]+" version "${PROJECT_VERSION}.0.0.0")
  set(source_date_epoch "$ENV{SOURCE_DATE_EPOCH}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/build_identity.cmake.in ${directory}/build_identity.cmake @ONLY)
  file(RELATIVE_PATH place ${PROJECT_BINARY_DIR} ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
  add_custom_target(${library}_version_stamp
    COMMAND ${CMAKE_COMMAND} -DSOURCE=${PROJECT_SOURCE_DIR} -DIDENTITY=${directory}/build_identity.cmake
      -DTARGET=${place}/$<TARGET_FILE_NAME:${library}> -DHEADER=${directory}/version_stamp.h -P ${script}
    BYPRODUCTS ${directory}/version_stamp.h
    COMMENT "Checking the version stamp" VERBATIM)
  add_dependencies(${library} ${library}_version_stamp)
  set_property(SOURCE ${source} APPEND PROPERTY INCLUDE_DIRECTORIES ${directory})
endfunction()
