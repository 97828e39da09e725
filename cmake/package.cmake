# What cpack makes of the installed files: a Debian package of each component. Configure with the
# preset `package`, which installs below /usr.
set(TDMBREC_MAINTAINER "tdmbrec maintainers <maintainers@tdmbrec.example>" CACHE STRING
    "Who makes the Debian packages: a name and an address")

# The newest version of the changelog dates the packages, so that they do not depend on the clock.
file(STRINGS CHANGELOG.md versions REGEX "^## \\[[0-9]")
list(GET versions 0 newest)
if(NOT newest MATCHES "^## \\[([0-9.]+)\\] - ([0-9]+-[0-9]+-[0-9]+)$"
        OR NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
    message(FATAL_ERROR "CHANGELOG.md does not begin with version ${PROJECT_VERSION} and its date")
endif()
set(CPACK_TDMBREC_DATE "${CMAKE_MATCH_2}")
set(CPACK_TDMBREC_SOURCES "${PROJECT_SOURCE_DIR}/packaging")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tdmbrec)
set(CPACK_PACKAGE_VENDOR tdmbrec)
set(CPACK_PACKAGE_CONTACT "${TDMBREC_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PROJECT_CONFIG_FILE "${PROJECT_SOURCE_DIR}/packaging/cpack_options.cmake")
set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/packaging/add_debian_files.cmake")
set(CPACK_COMPONENTS_ALL command component development)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(same_version "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

set(CPACK_DEBIAN_COMMAND_PACKAGE_NAME tdmbrec)
set(CPACK_DEBIAN_COMMAND_PACKAGE_SECTION video)
set(CPACK_DEBIAN_COMMAND_PACKAGE_DEPENDS "libomx-qvr-tdmbrec ${same_version}")
set(CPACK_COMPONENT_COMMAND_DESCRIPTION "recorder of DMB programmes (command)
tdmbrec records an H.264 programme with sound to an MP4 file, reports what a
file holds and what is wrong with it, and brings interrupted recordings back.
It drives the recorder of a terrestrial DMB receiver, and also uses the
encoder and the muxer of that recorder alone.")

set(CPACK_DEBIAN_COMPONENT_PACKAGE_NAME libomx-qvr-tdmbrec)
set(CPACK_DEBIAN_COMPONENT_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_COMPONENT_DESCRIPTION "recorder of DMB programmes (OpenMAX IL component)
The component OMX.qvr.tdmb.rec takes H.264 and PCM from a player, encodes the
sound to AAC-LC and writes one MP4 file in bounded memory. The package has
also the stand-in for the libraries of a device, on which it runs on Linux.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtdmbrec-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libomx-qvr-tdmbrec ${same_version}, libstdc++-12-dev | libstdc++-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "recorder of DMB programmes (development files)
Headers, static libraries, a CMake package and pkg-config files for programs
that record through the component, that use the muxer or the encoder alone,
or that bring interrupted recordings back.")

include(CPack)
