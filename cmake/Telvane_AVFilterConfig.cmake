# Telvane::AVFilter     the library with its C header; FFmpeg is its own matter
# Telvane::AVFilterCpp  the C++ layer on it, which needs two headers of FFmpeg's libavutil (Debian:
#                       libavutil-dev); find_package(... COMPONENTS Cpp) insists on them
include(${CMAKE_CURRENT_LIST_DIR}/Telvane_AVFilterTargets.cmake)

find_path(Telvane_AVFilter_LIBAVUTIL_INCLUDE_DIR libavutil/pixfmt.h PATH_SUFFIXES ffmpeg)
mark_as_advanced(Telvane_AVFilter_LIBAVUTIL_INCLUDE_DIR)
if(Telvane_AVFilter_LIBAVUTIL_INCLUDE_DIR)
  target_include_directories(Telvane::AVFilterCpp INTERFACE ${Telvane_AVFilter_LIBAVUTIL_INCLUDE_DIR})
  set(Telvane_AVFilter_Cpp_FOUND TRUE)
endif()
foreach(component IN LISTS Telvane_AVFilter_FIND_COMPONENTS)
  if(Telvane_AVFilter_FIND_REQUIRED_${component} AND NOT Telvane_AVFilter_${component}_FOUND)
    set(Telvane_AVFilter_FOUND FALSE)
    if(component STREQUAL "Cpp")
      set(Telvane_AVFilter_NOT_FOUND_MESSAGE "component Cpp needs libavutil/pixfmt.h: is libavutil-dev installed?")
    else()
      set(Telvane_AVFilter_NOT_FOUND_MESSAGE "unknown component ${component}; there is Cpp")
    endif()
  endif()
endforeach()
