# FSPARSER_SANITIZERS is a comma-separated list for -fsanitize, or empty.
set(FSPARSER_SANITIZERS "" CACHE STRING "Sanitizers to build with, such as address,undefined")

# The build type of sanitized builds: optimised enough to be quick, with frames that can be read.
set(CMAKE_CXX_FLAGS_SANITIZED "-O1 -g -fno-omit-frame-pointer" CACHE STRING "Flags of sanitized builds")
set(CMAKE_EXE_LINKER_FLAGS_SANITIZED "" CACHE STRING "Linker flags of sanitized builds")
set(CMAKE_SHARED_LINKER_FLAGS_SANITIZED "" CACHE STRING "Linker flags of sanitized builds")

if(FSPARSER_SANITIZERS)
    add_compile_options(-fsanitize=${FSPARSER_SANITIZERS} -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${FSPARSER_SANITIZERS})
    if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        # The vptr check compares type information across the border of the shared libraries.
        add_link_options(-shared-libsan)
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libclang_rt.asan-x86_64.so
            OUTPUT_VARIABLE fsparser_asan_runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
        cmake_path(GET fsparser_asan_runtime PARENT_PATH fsparser_asan_directory)
        list(APPEND CMAKE_BUILD_RPATH ${fsparser_asan_directory})
    endif()
endif()
