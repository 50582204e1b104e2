# Finishes the installed files of a package: what a Debian package and an rpm hold differently, and directories that come
# out alike whatever the umask of the one who builds. CPack runs this before it packs them.
set(zsh_directory site-functions)
if(CPACK_GENERATOR STREQUAL "DEB")
    set(zsh_directory vendor-completions)
endif()
foreach(package IN LISTS CPACK_COMPONENTS_ALL)
    set(share ${CPACK_TEMPORARY_DIRECTORY}/${package}${CPACK_PACKAGING_INSTALL_PREFIX}/share)
    if(CPACK_GENERATOR STREQUAL "DEB")
        file(COPY ${CPACK_PLAX_PACKAGE_FILES}/changelog.Debian.gz DESTINATION ${share}/doc/${package})
    endif()
    file(CHMOD_RECURSE ${CPACK_TEMPORARY_DIRECTORY}/${package}
        DIRECTORY_PERMISSIONS ${CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS})
    file(GLOB installed_zsh_directory ${share}/zsh/*)
    if(installed_zsh_directory)
        file(RENAME ${installed_zsh_directory} ${share}/zsh/${zsh_directory})
    endif()
endforeach()
