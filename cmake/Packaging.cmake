# The Debian packages: one for the tool with its private library, one for the stand-in daemon. What lands in them is
# said where it is built, by install() with the component of the package's name; here stands what Debian wants besides.
# `cpack` in the build folder makes both.
find_program(DPKG dpkg)
if(NOT DPKG)
    return()
endif()

set(PLAX_PACKAGES plax-tool)
if(PLAX_BUILD_STANDIN)
    list(APPEND PLAX_PACKAGES plax-tool-standin)
endif()
set(PLAX_MAINTAINER "plax-tool maintainers <maintainers@plax-tool.invalid>")
set(PLAX_DEBIAN_RELEASE 1)

# The change log is written once, for people; the package's own follows from its first entry.
file(STRINGS CHANGELOG.md newest_change REGEX "^## " LIMIT_COUNT 1)
if(NOT newest_change MATCHES "^## ([0-9.]+) - ([0-9-]+)$" OR NOT CMAKE_MATCH_1 VERSION_EQUAL PROJECT_VERSION)
    message(FATAL_ERROR "CHANGELOG.md does not begin with version ${PROJECT_VERSION}: ${newest_change}")
endif()
execute_process(COMMAND date --utc --rfc-email --date=${CMAKE_MATCH_2}
    OUTPUT_VARIABLE release_date OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS CHANGELOG.md LICENSE)

# Compressed without name and time, so that the same text gives the same file.
function(write_compressed path text)
    file(WRITE ${path} "${text}")
    execute_process(COMMAND gzip -9nf ${path} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# Debian's form of a licence text: every line is indented, and an empty one holds a full stop.
file(READ LICENSE license)
string(REGEX MATCH "Copyright \\(c\\) ([^\n]*)" copyright "${license}")
set(copyright_holder ${CMAKE_MATCH_1})
string(REGEX REPLACE "^.*${copyright_holder}\n\n" "" license "${license}")
string(REGEX REPLACE "\n\n" "\n.\n" license "${license}")
string(REGEX REPLACE "\n(.)" "\n \\1" license " ${license}")

file(READ CHANGELOG.md change_log)
foreach(package IN LISTS PLAX_PACKAGES)
    set(folder ${CMAKE_BINARY_DIR}/debian/${package})
    file(WRITE ${folder}/copyright
        "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/\nUpstream-Name: plax-tool\n\n"
        "Files: *\nCopyright: ${copyright_holder}\nLicense: Expat\n${license}")
    write_compressed(${folder}/changelog "${change_log}")
    write_compressed(${folder}/changelog.Debian
        "plax-tool (${PROJECT_VERSION}-${PLAX_DEBIAN_RELEASE}) unstable; urgency=medium\n\n  * New version.\n\n \
-- ${PLAX_MAINTAINER}  ${release_date}\n")
    install(FILES ${folder}/copyright ${folder}/changelog.gz ${folder}/changelog.Debian.gz
        DESTINATION share/doc/${package} COMPONENT ${package})
endforeach()

# Folders come out alike whatever the umask of the one who builds.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS ${CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS})

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL ${PLAX_PACKAGES})
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${PLAX_DEBIAN_RELEASE})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${PLAX_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Each package has a description of its own, and no line of the project's before it.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")

# What the tool depends on is stated rather than searched for: CPack would take the private library for a public one and
# have the package rebuild the loader's cache. The C library that the tool was built against is new enough.
execute_process(COMMAND getconf GNU_LIBC_VERSION
    OUTPUT_VARIABLE libc OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
string(REPLACE "glibc " "" libc ${libc})
set(CPACK_DEBIAN_PLAX-TOOL_PACKAGE_NAME plax-tool)
set(CPACK_DEBIAN_PLAX-TOOL_DESCRIPTION "administer plaxd, the placement daemon of clustered storage
plaxd decides where the components of stored objects live across disks, disk
groups, hosts and fault domains. One run of plax-tool asks it for one thing:
statistics, a repair, a rebalance, or what a decommissioning would take.

Manual page and completions for bash, zsh and fish are included.")
set(CPACK_DEBIAN_PLAX-TOOL_PACKAGE_DEPENDS "libc6 (>= ${libc})")
set(CPACK_DEBIAN_PLAX-TOOL_PACKAGE_SUGGESTS plax-tool-standin)

set(CPACK_DEBIAN_PLAX-TOOL-STANDIN_PACKAGE_NAME plax-tool-standin)
set(CPACK_DEBIAN_PLAX-TOOL-STANDIN_DESCRIPTION "rehearse plax-tool scripts without a storage cluster
plaxd-standin takes the place of plaxd, the placement daemon of clustered
storage: it answers plax-tool as told, logs each request decoded field by
field, and misbehaves on demand.")
set(CPACK_DEBIAN_PLAX-TOOL-STANDIN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PLAX-TOOL-STANDIN_PACKAGE_RECOMMENDS plax-tool)
include(CPack)
