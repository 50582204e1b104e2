# Wireshark looks for dissectors below the library directory of its own prefix, which is /usr. Debian has one of these
# directories for each processor.
set(library lib)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr" AND EXISTS /etc/debian_version)
    set(library lib/${PLAX_LIBRARY_ARCHITECTURE})
elseif(CMAKE_INSTALL_PREFIX STREQUAL "/usr" AND EXISTS /usr/lib64)
    set(library lib64)
endif()
file(INSTALL ${CMAKE_CURRENT_LIST_DIR}/plaxd.lua
    DESTINATION ${CMAKE_INSTALL_PREFIX}/${library}/wireshark/plugins
    PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
