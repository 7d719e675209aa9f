# What `cmake --install` puts where. Three components: `runtime` (the shared libraries), `development` (headers, link
# names, and what pkg-config and CMake look for) and `command` (the command with its manuals and all pages; the default).
include(CMakePackageConfigHelpers)

set(fsparser_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/fsparser)

install(TARGETS mortar fsparser
    EXPORT fsparserTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS fsparser_command RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT command)

foreach(library mortar fsparser)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/${library}/include/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development FILES_MATCHING PATTERN "*.h")
endforeach()

install(EXPORT fsparserTargets
    NAMESPACE fsparser:: DESTINATION ${fsparser_cmake_dir} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/fsparserConfig.cmake.in fsparserConfig.cmake
    INSTALL_DESTINATION ${fsparser_cmake_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(fsparserConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/fsparserConfig.cmake ${PROJECT_BINARY_DIR}/fsparserConfigVersion.cmake
    DESTINATION ${fsparser_cmake_dir} COMPONENT development)

# Paths in the .pc files begin where the file itself lies, so that the tree can be moved, or installed under any prefix.
set(pkgconfig_dir ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH prefix_from_pkgconfig ${pkgconfig_dir} ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefix_from_pkgconfig ${prefix_from_pkgconfig})
file(RELATIVE_PATH libdir_from_prefix ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH includedir_from_prefix ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
foreach(library mortar fsparser)
    configure_file(${CMAKE_CURRENT_LIST_DIR}/${library}.pc.in ${library}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${library}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()

# Pages, and what they link to, lie as in the sources.
install(FILES README.md CONTRIBUTING.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT command)
install(FILES bench/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR}/bench COMPONENT command)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT command
    FILES_MATCHING PATTERN "*.md" PATTERN "*.png" PATTERN "*.svg")
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT command)
