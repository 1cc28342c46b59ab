# Debian packages, by `cpack` in the build directory. Configure for them as scripts/check-packages.sh does:
# prefix /usr, which also chooses the multiarch directory, and who makes them in CPACK_PACKAGE_CONTACT.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME telvane-avfilter)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The library is no installed package when the others' dependencies are looked up.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})

# telvane_package(COMPONENT NAME SECTION TEXT): a package with what is installed as COMPONENT.
set(CPACK_COMPONENTS_ALL "")
set(library libtelvane-avfilter${PROJECT_VERSION_MAJOR})
macro(telvane_package component name section text)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  string(TOUPPER ${component} prefix)
  string(PREPEND prefix CPACK_DEBIAN_)
  set(${prefix}_PACKAGE_NAME ${name})
  set(${prefix}_PACKAGE_SECTION ${section})
  set(${prefix}_DESCRIPTION
"A shared library with a plain C interface that runs FFmpeg filter graphs and
the FFmpeg scaler over raw audio and video in the caller's own buffers: audio
filtering and mixing, video filtering and mixing, video scaling.
.
${text}")
  if(NOT ${component} STREQUAL runtime)
    set(${prefix}_PACKAGE_DEPENDS "${library} (= ${PROJECT_VERSION})")
  endif()
endmacro()

telvane_package(runtime ${library} libs "This package holds the library.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# CPack would add scripts that call ldconfig. Files of their names that are not there keep it from
# doing so; the trigger does their work.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_LIST_DIR}/triggers
  ${CMAKE_CURRENT_LIST_DIR}/none/postinst
  ${CMAKE_CURRENT_LIST_DIR}/none/postrm)

# The C header needs the library alone. The C++ layer includes two headers of libavutil.
telvane_package(development libtelvane-avfilter-dev libdevel
  "This package holds the headers and what pkg-config and CMake need.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_RECOMMENDS libavutil-dev)

if(TELVANE_BUILD_TOOLS)
  telvane_package(tool telvane-avfilter video
    "This package holds the command telvane-avfilter, which does these jobs\non media files.")
  set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ON)
endif()

if(TELVANE_BUILD_PYTHON)
  telvane_package(python python3-telvane-avfilter python
    "This package holds the Python module telvane_avfilter, which does these jobs\non NumPy arrays.")
  string(APPEND CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS ", ${TELVANE_PYTHON_DEPENDS}")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/python/postinst ${CMAKE_CURRENT_LIST_DIR}/python/prerm)
endif()

# Each package's documents, written when the packages are made.
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/cpack-documents.cmake)
set(CPACK_telvane_sources ${CMAKE_CURRENT_LIST_DIR})
include(CPack)
