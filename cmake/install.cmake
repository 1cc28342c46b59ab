# What `cmake --install` puts where. Everything finds its neighbours by relative paths, so the installed
# tree may be moved. Components: runtime (the libraries) and development (headers, link, package files).
include(CMakePackageConfigHelpers)

set(runtime_targets Telvane_AVFilter)
if(NOT TELVANE_SYSTEM_BASELIB)
  list(APPEND runtime_targets Telvane_BaseLib)
  # Beside the library wherever that goes; CMAKE_SKIP_INSTALL_RPATH leaves it out, for system directories.
  set_target_properties(Telvane_AVFilter PROPERTIES INSTALL_RPATH "$ORIGIN")
  # Nobody links the base library by name; the export set has it because linkers look for it.
  set_target_properties(Telvane_BaseLib PROPERTIES EXPORT_NAME BaseLib)
  install(TARGETS Telvane_BaseLib EXPORT Telvane_AVFilterTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_SKIP)
endif()
set_target_properties(Telvane_AVFilter PROPERTIES EXPORT_NAME AVFilter)
install(TARGETS Telvane_AVFilter EXPORT Telvane_AVFilterTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)

install(FILES include/Telvane_AVFilter.h include/Telvane_AVFilter.hpp
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Telvane_AVFilter)
install(EXPORT Telvane_AVFilterTargets NAMESPACE Telvane::
  DESTINATION ${package_dir} COMPONENT development)
configure_file(cmake/Telvane_AVFilterConfig.cmake.in Telvane_AVFilterConfig.cmake @ONLY)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/Telvane_AVFilterConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/Telvane_AVFilterConfig.cmake
  ${PROJECT_BINARY_DIR}/Telvane_AVFilterConfigVersion.cmake
  DESTINATION ${package_dir} COMPONENT development)

# pkg-config: paths from the file's own place, unless they were given as absolute ones.
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR} OR IS_ABSOLUTE ${CMAKE_INSTALL_INCLUDEDIR})
  set(pc_libdir ${CMAKE_INSTALL_FULL_LIBDIR})
  set(pc_includedir ${CMAKE_INSTALL_FULL_INCLUDEDIR})
else()
  file(RELATIVE_PATH pc_libdir /${CMAKE_INSTALL_LIBDIR}/pkgconfig /${CMAKE_INSTALL_LIBDIR})
  file(RELATIVE_PATH pc_includedir /${CMAKE_INSTALL_LIBDIR}/pkgconfig /${CMAKE_INSTALL_INCLUDEDIR})
  string(PREPEND pc_libdir "\${pcfiledir}/")
  string(PREPEND pc_includedir "\${pcfiledir}/")
endif()
configure_file(cmake/Telvane_AVFilter.pc.in Telvane_AVFilter.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/Telvane_AVFilter.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

include(cmake/cpack.cmake)
