# Installs the completions of PLAX_PROGRAM where the shells look for them, which depends on the prefix.
set(bash_directory ${CMAKE_INSTALL_PREFIX}/share/bash-completion/completions)
set(zsh_directory ${CMAKE_INSTALL_PREFIX}/share/zsh/site-functions)
set(fish_directory ${CMAKE_INSTALL_PREFIX}/share/fish/vendor_completions.d)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr" AND EXISTS /etc/debian_version)
    # Debian's zsh has a separate directory for packages.
    set(zsh_directory /usr/share/zsh/vendor-completions)
elseif(CMAKE_INSTALL_PREFIX STREQUAL "/usr/local")
    # fish searches nothing below this prefix unless XDG_DATA_DIRS says so. This is the administrator's directory.
    set(fish_directory /etc/fish/completions)
endif()
file(INSTALL ${PLAX_COMPLETIONS}/${PLAX_PROGRAM}.bash DESTINATION ${bash_directory} RENAME ${PLAX_PROGRAM})
file(INSTALL ${PLAX_COMPLETIONS}/_${PLAX_PROGRAM} DESTINATION ${zsh_directory})
file(INSTALL ${PLAX_COMPLETIONS}/${PLAX_PROGRAM}.fish DESTINATION ${fish_directory})
