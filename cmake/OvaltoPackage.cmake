# What `cmake --install` and CPack ship: one static libovalto.a made of every layer, the public
# headers with the platform headers they include, the `ovalto` tool with its sample, a CMake
# package (find_package(Ovalto 1.0) -> Ovalto::ovalto) and ovalto.pc for pkg-config.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

get_property(_layers GLOBAL PROPERTY OVALTO_LAYERS)
set(_objects)
foreach(layer ${_layers})
    list(APPEND _objects $<TARGET_OBJECTS:${layer}>)
endforeach()
add_library(ovalto_package STATIC ${_objects})
set_target_properties(ovalto_package PROPERTIES OUTPUT_NAME ovalto
    ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/package)

# Headers go below a directory of their own: "platform/" is too plain a name for /usr/include.
set(OVALTO_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/Ovalto)
set(OVALTO_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Ovalto)

install(TARGETS ovalto_package ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ovalto)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${OVALTO_INSTALL_INCLUDEDIR} COMPONENT ovalto
    FILES_MATCHING PATTERN "*.h")
# The public headers name platform types (Url, Error, the player an application plays with).
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/ DESTINATION ${OVALTO_INSTALL_INCLUDEDIR}/platform
    COMPONENT ovalto FILES_MATCHING PATTERN "*.h")
install(TARGETS ovalto_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ovalto)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/samples/sample DESTINATION ${CMAKE_INSTALL_DATADIR}/ovalto
    COMPONENT ovalto)
install(FILES ${PROJECT_SOURCE_DIR}/examples/minimal.cpp DESTINATION ${CMAKE_INSTALL_DATADIR}/ovalto/examples
    COMPONENT ovalto)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/OvaltoConfig.cmake.in
    ${PROJECT_BINARY_DIR}/package/OvaltoConfig.cmake INSTALL_DESTINATION ${OVALTO_INSTALL_CMAKEDIR}
    PATH_VARS OVALTO_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/OvaltoConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
# The .pc file finds the prefix from where it lies, so the installed tree may be moved.
file(RELATIVE_PATH OVALTO_PC_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/cmake/ovalto.pc.in ${PROJECT_BINARY_DIR}/package/ovalto.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/package/OvaltoConfig.cmake ${PROJECT_BINARY_DIR}/package/OvaltoConfigVersion.cmake
    DESTINATION ${OVALTO_INSTALL_CMAKEDIR} COMPONENT ovalto)
install(FILES ${PROJECT_BINARY_DIR}/package/ovalto.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT ovalto)

# `cpack -G DEB` in the build tree. The tool's runtime libraries become the package's
# dependencies (dpkg-shlibdeps); building against the library needs the -dev packages.
set(CPACK_PACKAGE_NAME ovalto)
set(CPACK_PACKAGE_VENDOR "Ovalto")
set(CPACK_PACKAGE_CONTACT "Ovalto developers <ovalto@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "HLS between a media player and the network: library, headers and tool")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS
    "libcurl4-openssl-dev, liburiparser-dev, libsqlite3-dev, libexpat1-dev, libssl-dev, libpango1.0-dev, libcpp-httplib-dev, pkg-config")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
include(CPack)

# Installs into a temporary prefix and builds the example against it, out of tree. Sanitizer
# builds are left out: their archive needs the sanitizer runtimes at every link.
if(OVALTO_TESTS AND OVALTO_SANITIZE STREQUAL "")
    add_test(NAME package COMMAND bash ${PROJECT_SOURCE_DIR}/tests/package/install_and_build.sh
        ${PROJECT_BINARY_DIR} ${PROJECT_SOURCE_DIR})
    set_tests_properties(package PROPERTIES TIMEOUT 600)
endif()
