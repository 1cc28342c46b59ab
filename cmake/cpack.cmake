# Debian packages, by `cpack` in the build directory. Configure for them as tools/check-packages.sh does:
# prefix /usr, which also chooses the multiarch directory, and no run path.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME telvane-avfilter)
set(CPACK_PACKAGE_VENDOR Telvane)
set(CPACK_PACKAGE_CONTACT "Telvane maintainers <maintainers@telvane.example>"
  CACHE STRING "Maintainer named in the packages")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(description
"A shared library with a plain C interface that runs FFmpeg filter graphs and
the FFmpeg scaler over raw audio and video in the caller's own buffers: audio
filtering and mixing, video filtering and mixing, video scaling.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtelvane-avfilter${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION ${description})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# CPack would add scripts that call ldconfig. Files of their names that are not there keep it from
# doing so; the trigger does their work.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_LIST_DIR}/triggers
  ${CMAKE_CURRENT_LIST_DIR}/none/postinst
  ${CMAKE_CURRENT_LIST_DIR}/none/postrm)

# The C header needs the library alone. The C++ layer includes two headers of libavutil.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtelvane-avfilter-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_RECOMMENDS libavutil-dev)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"${description}\n.\nThis package holds the headers and what pkg-config and CMake need.")

if(TELVANE_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME telvane-avfilter)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION video)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
  # The library is no installed package when the dependencies are looked up.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION})")
  set(CPACK_DEBIAN_TOOLS_DESCRIPTION
"${description}\n.\nThis package holds the command telvane-avfilter, which does these jobs
on media files.")
endif()

# Each package's documents, written when the packages are made.
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/cpack-documents.cmake)
set(CPACK_telvane_sources ${CMAKE_CURRENT_LIST_DIR})
include(CPack)
