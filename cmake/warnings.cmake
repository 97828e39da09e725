# The only file with warning flags. A target that links to tdmbrec_warnings is compiled with them.
add_library(tdmbrec_warnings INTERFACE)
target_compile_options(tdmbrec_warnings INTERFACE
    -Wall -Wextra -Wpedantic
    -Wcast-align -Wcast-qual -Wconversion -Wsign-conversion -Wdouble-promotion
    -Wformat=2 -Wimplicit-fallthrough -Wold-style-cast -Wshadow -Wundef -Wunused
    -Wvla -Wwrite-strings
    -Wno-missing-field-initializers # designated initialisers leave the rest zero
)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(tdmbrec_warnings INTERFACE
        -Wduplicated-branches -Wduplicated-cond -Wlogical-op)
endif()
if(TDMBREC_WARNINGS_AS_ERRORS)
    target_compile_options(tdmbrec_warnings INTERFACE -Werror)
endif()

# Options of every part of the library: no exceptions, no run-time type information.
add_library(tdmbrec_library_options INTERFACE)
target_compile_options(tdmbrec_library_options INTERFACE -fno-exceptions -fno-rtti)
target_include_directories(tdmbrec_library_options INTERFACE "${PROJECT_SOURCE_DIR}")
target_link_libraries(tdmbrec_library_options INTERFACE tdmbrec_warnings)
