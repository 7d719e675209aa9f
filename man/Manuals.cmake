# The manual's pages, each made from its own text and what several have in common, and the completions of shells.
set(manual_dir ${CMAKE_CURRENT_LIST_DIR})
set(manual_output_dir ${PROJECT_BINARY_DIR}/share/man/man1)

# manual_part NAME: the part NAME.mdoc, under its name in capitals, without the newline at its end.
macro(manual_part name)
    string(TOUPPER ${name} manual_variable)
    string(REPLACE "-" "_" manual_variable ${manual_variable})
    file(READ ${manual_dir}/${name}.mdoc manual_text)
    string(STRIP "${manual_text}" ${manual_variable})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${manual_dir}/${name}.mdoc)
endmacro()

foreach(part IN ITEMS common-options unit-option refused-option output-option path-options paths path-caveats exit-codes)
    manual_part(${part})
endforeach()

set(manual_pages "")
foreach(verb IN ITEMS "" -detect -info -map -bitmap -ranges -copy -verify -digest -stat -extents -acl)
    configure_file(${manual_dir}/fsparser${verb}.1.in ${manual_output_dir}/fsparser${verb}.1 @ONLY)
    list(APPEND manual_pages ${manual_output_dir}/fsparser${verb}.1)
endforeach()

install(FILES ${manual_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT command)
install(FILES ${PROJECT_SOURCE_DIR}/completions/fsparser.bash
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME fsparser COMPONENT command)
install(FILES ${PROJECT_SOURCE_DIR}/completions/_fsparser
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions COMPONENT command)
