# What both compilers warn about. That a warning is an error is for the preset ci: elsewhere a newer compiler's opinion
# must not stop a build.
add_compile_options(
    -Wall -Wextra -Wpedantic
    -Wconversion -Wsign-conversion -Wdouble-promotion -Wshadow -Wold-style-cast -Wcast-align -Wcast-qual
    -Wformat=2 -Wmissing-declarations -Wnon-virtual-dtor -Woverloaded-virtual -Wundef -Wunused -Wvla)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wduplicated-branches -Wduplicated-cond -Wlogical-op)
    if(CMAKE_SIZEOF_VOID_P EQUAL 8) # where types are narrower, casts that are needed here are useless
        add_compile_options(-Wuseless-cast)
    endif()
endif()
