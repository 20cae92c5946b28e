# The Debian packages: "cpack -G DEB" in the build folder makes them; ./dev package also proves them.

# The version is that of the project; the changelog of the packages adds their revision to it.
set(changelog ${CMAKE_CURRENT_LIST_DIR}/deb/changelog)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${changelog})
file(STRINGS ${changelog} first_line LIMIT_COUNT 1)
if(NOT first_line MATCHES "^corvik \\(([0-9.]+)-([0-9]+)\\) ")
  message(FATAL_ERROR "${changelog} does not begin with a version and its revision")
endif()
if(NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "The project is version ${PROJECT_VERSION}, but ${changelog} begins with "
                      "${CMAKE_MATCH_1}: add an entry")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME corvik)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_2})
set(CPACK_DEBIAN_PACKAGE_SOURCE corvik)
set(CPACK_PACKAGE_CONTACT "corvik developers <maintainers@corvik.invalid>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES TRUE)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/folder_permissions.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL corvik)
if(CORVIK_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL kit)
endif()

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each description begins with its own

set(CPACK_DEBIAN_CORVIK_PACKAGE_NAME corvik)
set(CPACK_DEBIAN_CORVIK_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_CORVIK_PACKAGE_SUGGESTS "corvik-dev-kit, dbus-bin")
set(CPACK_DEBIAN_CORVIK_DESCRIPTION
"moves remote-session connections between registry and XML
corvik exports the connections of one type (RDP, ICA, VDM, web browser,
Telnet, terminal emulator, Xdmcp and others) from the configuration registry
of a Linux thin client into an XML file, and brings such a file into a
registry, merging with what is there or replacing it.

It reaches the registry through the command-line client of the device, regsh,
which this package does not bring along.")

set(CPACK_DEBIAN_KIT_PACKAGE_NAME corvik-dev-kit)
set(CPACK_DEBIAN_KIT_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_KIT_PACKAGE_DEPENDS
    "corvik (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_DEBIAN_KIT_DESCRIPTION
"simulated thin client to develop and to try corvik with
For machines that are no thin client: a simulated device, which gives one
command an /etc, a /tmp and a registry of its own, the reference registry
client, and sample registries.

Its programs stay in /usr/lib/corvik-dev-kit/bin, which is not on PATH: the
client of the kit must not be taken for the one of a device.")

include(CPack)
