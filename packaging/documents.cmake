# Rules for installing documents. Those that Debian wants compressed are compressed while building, by
# "gzip -9n": without a name and a time inside, so that two builds give the same bytes.
set(documents_folder ${PROJECT_BINARY_DIR}/documents)
find_program(GZIP gzip REQUIRED)

# install_compressed(COMPONENT SOURCE DESTINATION NAME)
function(install_compressed component source destination name)
  set(result ${documents_folder}/${component}/${name}.gz)
  cmake_path(GET result PARENT_PATH folder)
  file(MAKE_DIRECTORY ${folder})
  add_custom_command(
    OUTPUT ${result}
    COMMAND ${GZIP} -9nc ${source} > ${result}
    DEPENDS ${source}
    VERBATIM)
  set_property(GLOBAL APPEND PROPERTY made_documents ${result})
  install(FILES ${result} DESTINATION ${destination} COMPONENT ${component})
endfunction()

# install_pages(COMPONENT DESTINATION NAME.SECTION...): manual pages of the folder man
function(install_pages component destination)
  foreach(page IN LISTS ARGN)
    string(REGEX MATCH "[0-9]$" section ${page})
    install_compressed(${component} ${CMAKE_CURRENT_SOURCE_DIR}/man/${page}
                       ${destination}/man${section} ${page})
  endforeach()
endfunction()

# install_package_papers(COMPONENT PACKAGE): what Debian wants in share/doc/PACKAGE
function(install_package_papers component package)
  set(folder ${CMAKE_INSTALL_DATADIR}/doc/${package})
  install_compressed(${component} ${PROJECT_SOURCE_DIR}/CHANGELOG.md ${folder} changelog)
  install_compressed(${component} ${CMAKE_CURRENT_SOURCE_DIR}/deb/changelog ${folder}
                     changelog.Debian)
  install(FILES deb/${package}.copyright DESTINATION ${folder} RENAME copyright
          COMPONENT ${component})
endfunction()

# install_documents(COMPONENT DESTINATION FILE.md...): without the links that lead out of the package
function(install_documents component destination)
  set(rewrite ${CMAKE_CURRENT_SOURCE_DIR}/installed_links.cmake)
  foreach(source IN LISTS ARGN)
    cmake_path(GET source FILENAME name)
    set(result ${documents_folder}/${component}/${name})
    file(MAKE_DIRECTORY ${documents_folder}/${component})
    add_custom_command(
      OUTPUT ${result}
      COMMAND ${CMAKE_COMMAND} -D SOURCE=${source} -D RESULT=${result} -P ${rewrite}
      DEPENDS ${source} ${rewrite}
      VERBATIM)
    set_property(GLOBAL APPEND PROPERTY made_documents ${result})
    install(FILES ${result} DESTINATION ${destination} COMPONENT ${component})
  endforeach()
endfunction()

# install_overrides(COMPONENT PACKAGE): what lintian is to leave out, and why
function(install_overrides component package)
  install(FILES deb/${package}.lintian-overrides RENAME ${package}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT ${component})
endfunction()

# Call it after the last of the above.
function(add_document_target)
  get_property(files GLOBAL PROPERTY made_documents)
  add_custom_target(documents ALL DEPENDS ${files})
endfunction()
