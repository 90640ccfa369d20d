# What an installation holds, and the Debian packages. Version, soname and the packages' names all follow from the
# version in the project's first line.
include(CMakePackageConfigHelpers)

set(KELP_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kelp_player)
set(KELP_DOC_DIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/libkelp-player${PROJECT_VERSION_MAJOR})

install(TARGETS kelp_player EXPORT kelp_playerTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/kelp_player DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT development FILES_MATCHING PATTERN "*.h")

install(EXPORT kelp_playerTargets NAMESPACE kelp_player:: DESTINATION ${KELP_CMAKE_DIR} COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/packaging/kelp_player-config.cmake.in
                              ${PROJECT_BINARY_DIR}/packaging/kelp_player-config.cmake
                              INSTALL_DESTINATION ${KELP_CMAKE_DIR} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/packaging/kelp_player-config-version.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/packaging/kelp_player-config.cmake
              ${PROJECT_BINARY_DIR}/packaging/kelp_player-config-version.cmake
        DESTINATION ${KELP_CMAKE_DIR} COMPONENT development)

# The pkg-config file finds its prefix from where it lies, so an installation can be moved.
file(RELATIVE_PATH KELP_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/packaging/kelp_player.pc.in ${PROJECT_BINARY_DIR}/packaging/kelp_player.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/kelp_player.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)

# The notices of what is linked: an overview of our own, and the texts as this machine's packages have them.
install(FILES ${PROJECT_SOURCE_DIR}/packaging/THIRD_PARTY_NOTICES.md DESTINATION ${KELP_DOC_DIR} COMPONENT runtime)
foreach(notice libavformat-dev libsdl2-dev libsoundtouch-dev libass-dev)
  if(EXISTS /usr/share/doc/${notice}/copyright)
    install(FILES /usr/share/doc/${notice}/copyright DESTINATION ${KELP_DOC_DIR}/licenses RENAME ${notice}.txt
            COMPONENT runtime)
  endif()
endforeach()
foreach(text LGPL-2.1 GPL-2 GPL-3 Apache-2.0)
  if(EXISTS /usr/share/common-licenses/${text})
    install(FILES /usr/share/common-licenses/${text} DESTINATION ${KELP_DOC_DIR}/licenses RENAME ${text}.txt
            COMPONENT runtime)
  endif()
endforeach()

# The Python package needs no compiler: it calls the library's C interface.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/python/kelp_player DESTINATION lib/python3/dist-packages COMPONENT python
        FILES_MATCHING PATTERN "*.py" PATTERN "py.typed" PATTERN "__pycache__" EXCLUDE)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelp-player)
set(CPACK_PACKAGE_VENDOR "The kelp_player developers")
set(CPACK_PACKAGE_CONTACT "The kelp_player developers <nobody@localhost>")
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                                WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development python)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkelp-player${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# What isn't linked but loaded when it is needed. Its packages are named after the major version.
string(REGEX MATCH "^[0-9]+" avfilter_major "${AVFILTER_VERSION}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS libavfilter${avfilter_major})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libass9 (>= 1:0.17)")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "The shared library.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkelp-player-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Headers, CMake package and pkg-config file.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-kelp-player)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
    "python3 (>= 3.9), ${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS python3-numpy)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/python3/postinst
                                              ${PROJECT_SOURCE_DIR}/packaging/python3/prerm)
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "The library for Python.")
include(CPack)
