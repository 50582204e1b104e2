# The packages: one for the tool with its private library, one for the stand-in daemon, each for Debian and for systems
# with rpm. Each target has its own install() with the component named after the package. This file adds the documents
# and the metadata. `cpack` in the build directory builds the packages for which the machine has the programs.
set(PLAX_PACKAGES plax-tool)
if(PLAX_BUILD_STANDIN)
    list(APPEND PLAX_PACKAGES plax-tool-standin)
endif()
set(PLAX_MAINTAINER "plax-tool maintainers <maintainers@plax-tool.invalid>")
set(PLAX_PACKAGE_RELEASE 1)

# The changelogs of the packages take version and date from the first entry of CHANGELOG.md.
file(STRINGS CHANGELOG.md newest_change REGEX "^## " LIMIT_COUNT 1)
if(NOT newest_change MATCHES "^## ([0-9.]+) - ([0-9-]+)$" OR NOT CMAKE_MATCH_1 VERSION_EQUAL PROJECT_VERSION)
    message(FATAL_ERROR "CHANGELOG.md does not begin with version ${PROJECT_VERSION}: ${newest_change}")
endif()
set(release_day ${CMAKE_MATCH_2})
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS CHANGELOG.md LICENSE)

function(release_date variable)
    execute_process(COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C date --utc --date=${release_day} ${ARGN}
        OUTPUT_VARIABLE date OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    set(${variable} ${date} PARENT_SCOPE)
endfunction()

# Compressed without name and time, so that the same text always gives the same file.
function(write_compressed path text)
    file(WRITE ${path} "${text}")
    execute_process(COMMAND ${GZIP} -9nf ${path} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# Debian's form of a licence text: every line is indented, and an empty line becomes a full stop.
file(READ LICENSE license)
string(REGEX MATCH "Copyright \\(c\\) ([^\n]*)" copyright "${license}")
set(copyright_holder ${CMAKE_MATCH_1})
string(REGEX REPLACE "^.*${copyright_holder}\n\n" "" license "${license}")
string(REGEX REPLACE "\n\n" "\n.\n" license "${license}")
string(REGEX REPLACE "\n(.)" "\n \\1" license " ${license}")

set(PLAX_PACKAGE_FILES ${CMAKE_BINARY_DIR}/package-files)
file(WRITE ${PLAX_PACKAGE_FILES}/copyright
    "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/\nUpstream-Name: plax-tool\n\n"
    "Files: *\nCopyright: ${copyright_holder}\nLicense: Expat\n${license}")
file(READ CHANGELOG.md changelog)
write_compressed(${PLAX_PACKAGE_FILES}/changelog "${changelog}")
release_date(date --rfc-email)
write_compressed(${PLAX_PACKAGE_FILES}/changelog.Debian
    "plax-tool (${PROJECT_VERSION}-${PLAX_PACKAGE_RELEASE}) unstable; urgency=medium\n\n  * New version.\n\n \
-- ${PLAX_MAINTAINER}  ${date}\n")
release_date(date "+%a %b %d %Y")
file(WRITE ${PLAX_PACKAGE_FILES}/changelog.rpm
    "* ${date} ${PLAX_MAINTAINER} - ${PROJECT_VERSION}-${PLAX_PACKAGE_RELEASE}\n- New version.\n")
foreach(package IN LISTS PLAX_PACKAGES)
    install(FILES ${PLAX_PACKAGE_FILES}/copyright ${PLAX_PACKAGE_FILES}/changelog.gz
        DESTINATION share/doc/${package} COMPONENT ${package})
endforeach()
# In the layout of the source, so that the links between the documents work. The licence is in the copyright file.
install(FILES README.md CHANGELOG.md CONTRIBUTING.md DESTINATION share/doc/plax-tool COMPONENT plax-tool)
install(DIRECTORY docs DESTINATION share/doc/plax-tool COMPONENT plax-tool FILES_MATCHING REGEX "\\.(md|png|svg)$")

# Only the owner can write to directories.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS ${CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS})

find_program(DPKG dpkg)
find_program(RPMBUILD rpmbuild)
set(CPACK_GENERATOR)
if(DPKG)
    list(APPEND CPACK_GENERATOR DEB)
endif()
if(RPMBUILD)
    list(APPEND CPACK_GENERATOR RPM)
endif()
if(NOT CPACK_GENERATOR)
    return()
endif()
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_COMPONENTS_ALL ${PLAX_PACKAGES})
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# Each package has its own description, without the project's summary line.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")

set(tool_description "plaxd places the components of stored objects on the disks, disk groups,
hosts and fault domains of a storage cluster. Each run of plax-tool sends it
one command, for example to show statistics, to repair an object, to rebalance
disks, or to plan a decommissioning.

The manual page, other documents, and completions for bash, zsh and fish are
included.")
set(standin_description "plaxd-standin takes the place of plaxd, the placement daemon of clustered
storage: it answers plax-tool as told, logs each request decoded field by
field, and misbehaves on demand.")

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/cmake/PackageFiles.cmake)
set(CPACK_PLAX_PACKAGE_FILES ${PLAX_PACKAGE_FILES})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${PLAX_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${PLAX_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# The tool's dependencies are stated, not detected: CPack would treat the private library as a public one and have the
# package rebuild the loader's cache. The package requires the C library's version on the build machine, or newer.
execute_process(COMMAND getconf GNU_LIBC_VERSION
    OUTPUT_VARIABLE libc OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
string(REPLACE "glibc " "" libc ${libc})
set(CPACK_DEBIAN_PLAX-TOOL_PACKAGE_NAME plax-tool)
set(CPACK_DEBIAN_PLAX-TOOL_DESCRIPTION "administer plaxd, the placement daemon of clustered storage
${tool_description}")
set(CPACK_DEBIAN_PLAX-TOOL_PACKAGE_DEPENDS "libc6 (>= ${libc})")
set(CPACK_DEBIAN_PLAX-TOOL_PACKAGE_SUGGESTS plax-tool-standin)

set(CPACK_DEBIAN_PLAX-TOOL-STANDIN_PACKAGE_NAME plax-tool-standin)
set(CPACK_DEBIAN_PLAX-TOOL-STANDIN_DESCRIPTION "rehearse plax-tool scripts without a storage cluster
${standin_description}")
set(CPACK_DEBIAN_PLAX-TOOL-STANDIN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PLAX-TOOL-STANDIN_PACKAGE_RECOMMENDS plax-tool)

set(CPACK_RPM_COMPONENT_INSTALL ON)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_RELEASE ${PLAX_PACKAGE_RELEASE})
set(CPACK_RPM_PACKAGE_LICENSE MIT)
set(CPACK_RPM_PACKAGE_GROUP "System Environment/Base")
set(CPACK_RPM_PACKAGE_VENDOR "plax-tool maintainers")
set(CPACK_PACKAGE_RELOCATABLE OFF)
set(CPACK_RPM_CHANGELOG_FILE ${PLAX_PACKAGE_FILES}/changelog.rpm)
# rpm detects the required libraries. The private one is neither provided nor required. Build-id links are only useful
# with packages of debugging symbols. CPack has no variables for the packager or for weak dependencies.
set(CPACK_RPM_SPEC_MORE_DEFINE "Packager: ${PLAX_MAINTAINER}
%global __requires_exclude libplax-platform
%global __provides_exclude libplax-platform
%global _build_id_links none
%if \"%{name}\" == \"plax-tool\"
Suggests: plax-tool-standin
%else
Recommends: plax-tool
%endif")
# Every system has these directories. The shells' directories exist only with the shells, which share them.
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
    /usr/sbin /usr/share/man /usr/share/man/man1 /usr/share/man/man5 /usr/share/man/man8)
set(CPACK_RPM_plax-tool_PACKAGE_NAME plax-tool)
set(CPACK_RPM_plax-tool_PACKAGE_SUMMARY "Administer plaxd, the placement daemon of clustered storage")
set(CPACK_RPM_plax-tool_PACKAGE_DESCRIPTION "${tool_description}")
set(CPACK_RPM_plax-tool-standin_PACKAGE_NAME plax-tool-standin)
set(CPACK_RPM_plax-tool-standin_PACKAGE_SUMMARY "Rehearse plax-tool scripts without a storage cluster")
set(CPACK_RPM_plax-tool-standin_PACKAGE_DESCRIPTION "${standin_description}")
include(CPack)
