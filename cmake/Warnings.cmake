# The warnings that every target of this project is compiled with.
option(FSPARSER_WARNINGS_AS_ERRORS "Treat warnings as errors" OFF)

add_library(fsparser_warnings INTERFACE)
target_compile_options(fsparser_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wnon-virtual-dtor -Wold-style-cast
    -Woverloaded-virtual -Wcast-align -Wcast-qual -Wformat=2 -Wimplicit-fallthrough
    $<$<BOOL:${FSPARSER_WARNINGS_AS_ERRORS}>:-Werror>)
