# Warnings of both compilers. Only the preset ci makes them errors: elsewhere, new warnings of a newer compiler must not
# stop a build.
add_compile_options(
    -Wall -Wextra -Wpedantic
    -Wconversion -Wsign-conversion -Wdouble-promotion -Wshadow -Wold-style-cast -Wcast-align -Wcast-qual
    -Wformat=2 -Wmissing-declarations -Wnon-virtual-dtor -Woverloaded-virtual -Wundef -Wunused -Wvla)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wduplicated-branches -Wduplicated-cond -Wlogical-op)
    if(CMAKE_SIZEOF_VOID_P EQUAL 8) # with narrower types, casts that 64-bit builds need are useless
        add_compile_options(-Wuseless-cast)
    endif()
endif()
