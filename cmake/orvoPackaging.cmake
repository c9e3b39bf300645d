# Debian packages from the install components (`make deb`, or cpack in a build
# tree configured with -DCMAKE_INSTALL_PREFIX=/usr):
#   runtime -> liborvo3, dev -> liborvo-dev, tools -> orvo-tools.

# orvo-scm as a systemd service, with its default configuration under /etc.
set(ORVO_SYSTEMD_UNITDIR "lib/systemd/system" CACHE STRING
    "where the orvo-scm unit is installed, relative to the prefix")
install(FILES ${PROJECT_SOURCE_DIR}/packaging/orvo-scm.service
        DESTINATION ${ORVO_SYSTEMD_UNITDIR} COMPONENT tools)
# Under /usr (packages) that is /etc/orvo; under any other prefix it stays
# inside the prefix, also when `cmake --install --prefix` moves it.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(ORVO_CONFIG_DIR /etc/orvo)
else()
  set(ORVO_CONFIG_DIR ${CMAKE_INSTALL_SYSCONFDIR}/orvo)
endif()
install(FILES ${PROJECT_SOURCE_DIR}/packaging/scm.json
        DESTINATION ${ORVO_CONFIG_DIR} COMPONENT tools)

set(ORVO_DEB_MAINTAINER "liborvo developers <liborvo@example.org>")
set(ORVO_DEB_RELEASE 1)
set(ORVO_DEB_VERSION "${PROJECT_VERSION}-${ORVO_DEB_RELEASE}")

# Every package carries the copyright file and the Debian changelog
# (compressed the reproducible way lintian checks for).
configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog.in
               ${CMAKE_BINARY_DIR}/packaging/changelog.Debian @ONLY)
find_program(ORVO_GZIP gzip)
if(ORVO_GZIP)
  execute_process(COMMAND ${ORVO_GZIP} -9nf ${CMAKE_BINARY_DIR}/packaging/changelog.Debian)
  foreach(pair runtime:liborvo3 dev:liborvo-dev tools:orvo-tools)
    string(REPLACE ":" ";" pair "${pair}")
    list(GET pair 0 component)
    list(GET pair 1 package)
    install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright
                  ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
  endforeach()
endif()

# The default configuration stays the administrator's once edited.
file(WRITE ${CMAKE_BINARY_DIR}/packaging/tools/conffiles
     "/etc/orvo/scm.json\n")

set(CPACK_PACKAGE_NAME liborvo)
set(CPACK_PACKAGE_VENDOR "liborvo developers")
set(CPACK_PACKAGE_CONTACT "${ORVO_DEB_MAINTAINER}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${ORVO_DEB_RELEASE})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${ORVO_DEB_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://liborvo.example.org/")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# orvo-tools' programs need liborvo.so.3 from this same build.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR} ${CMAKE_BINARY_DIR}/tesk)
if(CMAKE_CROSSCOMPILING)
  # dpkg-shlibdeps reads the host's package database, which knows no armhf
  # libraries: the armhf packages name the dependencies the amd64 ones get.
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
  set(ORVO_DEB_CXX_DEPENDS "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 12)")
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS
      "${ORVO_DEB_CXX_DEPENDS}, libcurl4 (>= 7.16.2), libssl3 (>= 3.0.0)")
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME liborvo3)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# A shlibs file for the programs built against the library, and the
# ldconfig trigger instead of maintainer scripts.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
file(WRITE ${CMAKE_BINARY_DIR}/packaging/runtime/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/packaging/runtime/triggers)
set(ORVO_RUNTIME_DESCRIPTION "service framework for metering devices - runtime library
liborvo gives the service processes of a metering device messages between
services, state machines, timers, records and their files, configuration
through the service control manager, and traces.

This package contains the shared libraries.")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${ORVO_RUNTIME_DESCRIPTION}")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME liborvo-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "liborvo3 (= ${ORVO_DEB_VERSION}), libssl-dev, libcurl4-openssl-dev | libcurl-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION "service framework for metering devices - development files
liborvo gives the service processes of a metering device messages between
services, state machines, timers, records and their files, configuration
through the service control manager, and traces.

This package contains the headers, the pkg-config file orvo.pc and the
CMake package (find_package(orvo)).")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME orvo-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "liborvo3 (= ${ORVO_DEB_VERSION})")
if(ORVO_DEB_CXX_DEPENDS)
  string(APPEND CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS ", ${ORVO_DEB_CXX_DEPENDS}")
endif()
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/packaging/tools/conffiles)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "service framework for metering devices - operator tools
The development service control manager orvo-scm (with a systemd unit and
a default configuration in /etc/orvo), the operator command orvo-ctl where
built, their manual pages and shell completion, and a Lua capture dissector
for liborvo messages (share/orvo/orvo.lua).")

include(CPack)
