# CPack runs this on the staged files of all packages.
if(CPACK_GENERATOR STREQUAL DEB)
  string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC) # SOURCE_DATE_EPOCH, where it is set
  foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} upper)
    set(documents ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    file(WRITE ${documents}/copyright "The owner of zniscsi has not chosen a licence: none is granted.\n")
    file(WRITE ${documents}/changelog.Debian "\
zniscsi (${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium

  * See CHANGELOG.md in the source.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")
  endforeach()
endif()
execute_process(COMMAND find ${CPACK_TEMPORARY_DIRECTORY} -type f ( -path */share/man/* -o -name changelog.Debian )
  -exec gzip -9n {} + COMMAND_ERROR_IS_FATAL ANY)

# The files do not depend on the umask and the time of the build.
execute_process(COMMAND chmod -R u=rwX,go=rX ${CPACK_TEMPORARY_DIRECTORY} COMMAND_ERROR_IS_FATAL ANY)
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  execute_process(COMMAND find ${CPACK_TEMPORARY_DIRECTORY} -exec touch -h -d @$ENV{SOURCE_DATE_EPOCH} {} +
    COMMAND_ERROR_IS_FATAL ANY)
endif()
