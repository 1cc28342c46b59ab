# What `cmake --install` puts where. Everything finds its neighbours by relative paths, so the installed
# tree may be moved. Components: runtime (the libraries), development (headers, link, package files), tool.
include(CMakePackageConfigHelpers)

if(NOT TELVANE_SYSTEM_BASELIB)
  # Into a folder of the library's own: beside it, it would replace an installed one of that name.
  set(private_dir telvane-avfilter)
  if(CMAKE_SKIP_RPATH OR CMAKE_SKIP_INSTALL_RPATH)
    message(WARNING "Without run paths the installed library does not find the bundled base library: "
      "leave CMAKE_SKIP_RPATH and CMAKE_SKIP_INSTALL_RPATH out, or use TELVANE_SYSTEM_BASELIB.")
  endif()
  set_target_properties(Telvane_AVFilter PROPERTIES INSTALL_RPATH "$ORIGIN/${private_dir}")
  # Nobody links the base library by name; the export set has it because linkers look for it.
  install(TARGETS Telvane_BaseLib EXPORT Telvane_AVFilterTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/${private_dir} COMPONENT runtime NAMELINK_SKIP)
endif()
install(TARGETS Telvane_AVFilter Telvane_AVFilterCpp EXPORT Telvane_AVFilterTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Telvane_AVFilter)
install(EXPORT Telvane_AVFilterTargets NAMESPACE Telvane::
  DESTINATION ${package_dir} COMPONENT development)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/Telvane_AVFilterConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_SOURCE_DIR}/cmake/Telvane_AVFilterConfig.cmake
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

# What stands in another folder of the installed tree and is linked to the library finds it from there, but
# where the system's loader looks anyway: telvane_find_library_from(TARGET FOLDER).
function(telvane_find_library_from target folder)
  if(NOT CMAKE_INSTALL_FULL_LIBDIR IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
    cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY ${folder} OUTPUT_VARIABLE libdir)
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/${libdir}")
  endif()
endfunction()
