# Run by cpack before it closes the packages: adds copyright and changelog, the latter from the newest
# section of CHANGELOG.md, whose heading is "## VERSION, DATE" and whose entries start with "- ".
file(STRINGS ${CPACK_telvane_sources}/../CHANGELOG.md lines ENCODING UTF-8)
set(heading "")
set(entries "")
foreach(line IN LISTS lines)
  if(line MATCHES "^## (.*), (.*)$")
    if(heading)
      break()
    endif()
    set(heading ${CMAKE_MATCH_1})
    execute_process(COMMAND date --utc -R -d ${CMAKE_MATCH_2}
      OUTPUT_VARIABLE date OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  elseif(heading AND line MATCHES "^- (.*)$")
    string(APPEND entries "  * ${CMAKE_MATCH_1}\n")
  elseif(heading AND line MATCHES "^  (.*)$")
    string(APPEND entries "    ${CMAKE_MATCH_1}\n")
  endif()
endforeach()
if(NOT heading STREQUAL CPACK_PACKAGE_VERSION)
  message(FATAL_ERROR "CHANGELOG.md starts with version ${heading}, this is ${CPACK_PACKAGE_VERSION}")
endif()

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  set(name ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(directory ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share/doc/${name})
  file(WRITE ${directory}/changelog
    "${CPACK_PACKAGE_NAME} (${heading}) stable; urgency=medium\n\n"
    "${entries}\n -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
  execute_process(COMMAND gzip -9nf ${directory}/changelog COMMAND_ERROR_IS_FATAL ANY)
  configure_file(${CPACK_telvane_sources}/copyright ${directory}/copyright COPYONLY)
  file(CHMOD ${directory}/changelog.gz ${directory}/copyright
    PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endforeach()

# Manual pages are installed as they are, and compressed in packages.
file(GLOB_RECURSE pages ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*.[1-9])
if(pages)
  execute_process(COMMAND gzip -9nf ${pages} COMMAND_ERROR_IS_FATAL ANY)
endif()
