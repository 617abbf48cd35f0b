# The installed package: headers, both libraries.
install(TARGETS kvutil qmlogger
  EXPORT kvutilTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
