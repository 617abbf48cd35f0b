# The installed package: headers, both libraries, and how CMake and pkg-config find them. Nothing in
# it names the prefix, so it can be moved as a whole.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kvutil)
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH relative_prefix /prefix/${pkgconfig_dir} /prefix)
string(REGEX REPLACE "/$" "" relative_prefix "${relative_prefix}")

install(TARGETS kvutil qmlogger
  EXPORT kvutilTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# Rows that headers include; outside the header set, since these files do not compile alone.
install(FILES
  include/kvutil/selector_domains.def
  include/kvutil/selector_namespaces.def
  include/kvutil/xmltag_wk.def
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kvutil)
install(EXPORT kvutilTargets NAMESPACE kvutil:: DESTINATION ${package_dir})

configure_package_config_file(cmake/kvutilConfig.cmake.in kvutilConfig.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(kvutilConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/kvutilConfig.cmake ${PROJECT_BINARY_DIR}/kvutilConfigVersion.cmake
  DESTINATION ${package_dir})

foreach(library kvutil qmlogger)
  configure_file(cmake/${library}.pc.in ${library}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${library}.pc DESTINATION ${pkgconfig_dir})
endforeach()
