# FSPARSER_SANITIZERS is a comma-separated list for -fsanitize, or empty.
set(FSPARSER_SANITIZERS "" CACHE STRING "Sanitizers to build with, such as address,undefined")

# The build type of sanitized builds: optimised enough to be quick, with frames that can be read. Not cache entries: CMake
# has made empty ones for a build type that it does not know.
set(CMAKE_CXX_FLAGS_SANITIZED "-O1 -g1 -fno-omit-frame-pointer")

if(FSPARSER_SANITIZERS)
    add_compile_options(-fsanitize=${FSPARSER_SANITIZERS} -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${FSPARSER_SANITIZERS})
endif()

# Coverage for libFuzzer in every target; only the fuzzers themselves link its main function.
if(FSPARSER_BUILD_FUZZERS)
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()
