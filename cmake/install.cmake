# The installed package: headers, both libraries.
install(TARGETS kvutil qmlogger
  EXPORT kvutilTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# Rows that xmltag.h includes; outside the header set, since the file does not compile alone.
install(FILES include/kvutil/xmltag_wk.def DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kvutil)
