# Install rules and the exported package.
#
#   component camdeliver      liborvcam_camdeliver, its public headers, the declarations of the
#                             platform it calls, the CMake package and orvcam_camdeliver.pc
#   component platform_host   liborvcam_platform_host with HostPlatform.h, its CMake targets and
#                             orvcam_platform_host.pc
#   component tools           the command-line programs
#   component explore         liborvcam_explore_harness.a with Explore.h: the schedule explorer as
#                             a harness for an integrator's own tests (needs platform_host)
#
# find_package(orvcam_camdeliver 0.1 REQUIRED [COMPONENTS platform_host explore]) gives
# orvcam::camdeliver, orvcam::platform_api and, when installed, orvcam::platform_host and
# orvcam::explore.
include(CMakePackageConfigHelpers)

set_target_properties(orvcam_camdeliver PROPERTIES EXPORT_NAME camdeliver)
set_target_properties(orvcam_platform_api PROPERTIES EXPORT_NAME platform_api)
set_target_properties(orvcam_platform_host PROPERTIES EXPORT_NAME platform_host)

install(TARGETS orvcam_camdeliver orvcam_platform_api
  EXPORT orvcam_camdeliverTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT camdeliver
          NAMELINK_COMPONENT camdeliver)
install(DIRECTORY include/ DESTINATION ${ORVCAM_INSTALL_INCLUDEDIR} COMPONENT camdeliver
  FILES_MATCHING PATTERN "*.h")
foreach(dir ${ORVCAM_PLATFORM_DIRS})
  install(DIRECTORY platform/${dir} DESTINATION ${ORVCAM_INSTALL_INCLUDEDIR} COMPONENT camdeliver
    FILES_MATCHING PATTERN "*.h")
endforeach()
install(EXPORT orvcam_camdeliverTargets NAMESPACE orvcam::
  DESTINATION ${ORVCAM_INSTALL_CMAKEDIR} COMPONENT camdeliver)

install(TARGETS orvcam_platform_host
  EXPORT orvcam_platform_hostTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT platform_host
          NAMELINK_COMPONENT platform_host)
install(FILES platform/host/HostPlatform.h DESTINATION ${ORVCAM_INSTALL_INCLUDEDIR}
  COMPONENT platform_host)
install(EXPORT orvcam_platform_hostTargets NAMESPACE orvcam::
  DESTINATION ${ORVCAM_INSTALL_CMAKEDIR} COMPONENT platform_host)

# Not under ThreadSanitizer's build, whose archive only refuses (Explore.h).
if(TARGET orvcam_explore_harness AND NOT CMAKE_CXX_FLAGS MATCHES "sanitize=thread")
  set_target_properties(orvcam_explore_harness PROPERTIES EXPORT_NAME explore)
  install(TARGETS orvcam_explore_harness
    EXPORT orvcam_exploreTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT explore)
  install(FILES tools/explore/Explore.h DESTINATION ${ORVCAM_INSTALL_INCLUDEDIR} COMPONENT explore)
  install(EXPORT orvcam_exploreTargets NAMESPACE orvcam::
    DESTINATION ${ORVCAM_INSTALL_CMAKEDIR} COMPONENT explore)
endif()

configure_package_config_file(cmake/orvcam_camdeliverConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/orvcam_camdeliverConfig.cmake
  INSTALL_DESTINATION ${ORVCAM_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/orvcam_camdeliverConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/orvcam_camdeliverConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/orvcam_camdeliverConfigVersion.cmake
  DESTINATION ${ORVCAM_INSTALL_CMAKEDIR} COMPONENT camdeliver)

# pkg-config: the library leaves the platform's symbols to a platform library, so a program
# lists both, for example `pkg-config --cflags --libs orvcam_camdeliver orvcam_platform_host`.
# The files find their prefix from where they lie, so an install with --prefix holds.
file(RELATIVE_PATH ORVCAM_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" ORVCAM_PC_TO_PREFIX "${ORVCAM_PC_TO_PREFIX}")
foreach(pc orvcam_camdeliver orvcam_platform_host)
  configure_file(cmake/${pc}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc @ONLY)
endforeach()
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/orvcam_camdeliver.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT camdeliver)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/orvcam_platform_host.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT platform_host)

foreach(tool camdeliver-sim camdeliver-log)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  endif()
endforeach()
