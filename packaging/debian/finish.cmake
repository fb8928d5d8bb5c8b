# Adds to the staged files what only a Debian package has, and compresses the manual pages as Debian
# does. CPack runs it.
set(share "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/usr/share")
file(GLOB_RECURSE manuals "${share}/man/*.[1-9]")
set(doc "${share}/doc/${CPACK_PACKAGE_NAME}")
# Not file(INSTALL): CPack sets DESTDIR.
configure_file("${CMAKE_CURRENT_LIST_DIR}/copyright" "${doc}/copyright" COPYONLY)
configure_file("${CMAKE_CURRENT_LIST_DIR}/lintian-overrides"
  "${share}/lintian/overrides/${CPACK_PACKAGE_NAME}" COPYONLY)
set(PROJECT_VERSION "${CPACK_PACKAGE_VERSION}")
configure_file("${CMAKE_CURRENT_LIST_DIR}/changelog.in" "${doc}/changelog" @ONLY)
execute_process(COMMAND gzip --best --no-name ${manuals} "${doc}/changelog"
  COMMAND_ERROR_IS_FATAL ANY)
