# What a release binary is protected with. The build folder's name is kept out of it, so that builds can be compared.
add_compile_options(-fstack-protector-strong "-ffile-prefix-map=${CMAKE_SOURCE_DIR}=.")
if(CMAKE_BUILD_TYPE STREQUAL "Release")
    add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|i.86")
    add_compile_options(-fcf-protection=full)
elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
    add_compile_options(-mbranch-protection=standard)
endif()
# Code and constants share their segments: where each kind has a segment of its own, a program that runs for less than a
# millisecond spends a twenty-fifth of it on mapping them.
add_link_options(LINKER:-z,noseparate-code)
add_link_options(LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)
