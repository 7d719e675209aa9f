# fsparser_discover_suites(TARGET FOLDER COST): one CTest test for each suite of a GoogleTest program, in place of one for each
# test. What a suite's tests share, such as a real volume, is made once then, and a sanitized process takes a tenth of a
# second to start, which thousands of them would pay. A suite of which everything was skipped counts as skipped. Suites of
# greater COST begin first, so that no long one is left to run alone at the end.
function(fsparser_discover_suites target folder cost)
    set(script "${CMAKE_CURRENT_BINARY_DIR}/${target}_suites.cmake")
    file(GENERATE OUTPUT "${script}" CONTENT
"if(NOT EXISTS \"$<TARGET_FILE:${target}>\")
    add_test(${folder}.NOT_BUILT ${target}_NOT_BUILT)
    return()
endif()
execute_process(COMMAND \"$<TARGET_FILE:${target}>\" --gtest_list_tests
    OUTPUT_VARIABLE listed RESULT_VARIABLE status)
if(NOT status EQUAL 0)
    message(FATAL_ERROR \"${target} cannot list its tests\")
endif()
string(REGEX MATCHALL \"(^|\\n)[A-Za-z_][^ .\\n]*\\\\.\" suites \"\${listed}\")
foreach(suite IN LISTS suites)
    string(STRIP \"\${suite}\" suite)
    add_test(\"${folder}.\${suite}*\" \"$<TARGET_FILE:${target}>\" \"--gtest_filter=\${suite}*\")
    set_tests_properties(\"${folder}.\${suite}*\" PROPERTIES LABELS ${folder} TIMEOUT 900 SKIP_RETURN_CODE 77 COST ${cost})
endforeach()
")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${script}")
endfunction()
