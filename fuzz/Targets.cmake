# The fuzz targets and what each is built from: for the fuzzers, and for the tests that replay their corpus.
set(fsparser_fuzz_dir ${CMAKE_CURRENT_LIST_DIR})
set(fsparser_fuzz_targets detection ext fat hfs xfs ntfs ntfs_lookup ntfs_files security runlists records)

# Hidden helpers of the library that a target looks at alone are compiled in again.
set(fsparser_fuzz_extra_security ${PROJECT_SOURCE_DIR}/fsparser/src/ntfs/Descriptors.cpp)
set(fsparser_fuzz_extra_runlists ${PROJECT_SOURCE_DIR}/fsparser/src/ntfs/Runlist.cpp)

# What targets share. Whoever includes this adds the tests' builders: some targets work on a sound volume.
add_library(fuzz_support STATIC ${fsparser_fuzz_dir}/Image.cpp)
target_include_directories(fuzz_support PUBLIC
    ${fsparser_fuzz_dir} ${PROJECT_SOURCE_DIR}/tests ${PROJECT_SOURCE_DIR}/fsparser/src)
target_link_libraries(fuzz_support PUBLIC fsparser::fsparser PRIVATE fsparser_warnings)

# executable: its name; target: what it runs; the rest are extra sources.
function(fsparser_add_fuzz_executable executable target)
    add_executable(${executable}
        ${fsparser_fuzz_dir}/fuzz_${target}.cpp ${fsparser_fuzz_extra_${target}} ${ARGN})
    target_link_libraries(${executable} PRIVATE fuzz_support fsparser_warnings)
endfunction()
