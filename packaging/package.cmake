# Debian packages: cpack --config FOLDER/CPackConfig.cmake. A build with the platform's library makes the gateway's
# package, orvoservicemanager. One without it makes two for a desk: its daemon talks to the stand-in's bus alone, and
# has a name of its own, so that nobody puts it on a gateway. lintian finds no error and no warning.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orvoservicemanager)
set(CPACK_PACKAGE_CONTACT "OrvoServiceManager maintainers <orvoservicemanager@example.net>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_COMPONENTS_ALL daemon systemd)
set(CPACK_COMPONENT_DAEMON_GROUP daemon)
set(CPACK_COMPONENT_SYSTEMD_GROUP daemon)
if(TARGET cloud-sim)
  list(APPEND CPACK_COMPONENTS_ALL desk)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_SET_DESTDIR ON)  # for what stands at a fixed place
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# Debian's name of the processor that the compiler builds for; -DCPACK_DEBIAN_PACKAGE_ARCHITECTURE=NAME names another.
set(machine ${CMAKE_LIBRARY_ARCHITECTURE})
if(NOT machine)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -dumpmachine OUTPUT_VARIABLE machine COMMAND_ERROR_IS_FATAL ANY)
endif()
string(REGEX MATCH "^[^-]+" processor "${machine}")
if(processor STREQUAL x86_64)
  set(processor amd64)
elseif(processor MATCHES "^i[3-6]86$")
  set(processor i386)
elseif(processor STREQUAL aarch64)
  set(processor arm64)
elseif(processor MATCHES "^arm" AND machine MATCHES "hf")
  set(processor armhf)
elseif(processor MATCHES "^arm")
  set(processor armel)
endif()
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${processor} CACHE STRING "Debian's name of the packages' architecture")

# What the packages depend on is found by cpack: depends.cmake.
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_SOURCE_DIR}/packaging/depends.cmake)
set(CPACK_ORSM_PROGRAMS ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
set(CPACK_ORSM_OBJDUMP ${CMAKE_OBJDUMP})
set(CPACK_ORSM_PACKAGE_LISTS ${CMAKE_SYSROOT}/var/lib/dpkg/info CACHE PATH "Where the target's lists of libraries are")

set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS "default-dbus-system-bus | dbus-system-bus, systemd | systemd-sysusers")
set(CPACK_DEBIAN_DAEMON_PACKAGE_RECOMMENDS ca-certificates)  # the bundle that the configuration names at first
configure_file(packaging/conffiles conffiles @ONLY)
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/conffiles
    ${CMAKE_SOURCE_DIR}/packaging/postinst ${CMAKE_SOURCE_DIR}/packaging/prerm ${CMAKE_SOURCE_DIR}/packaging/postrm)
set(description "Keeps the gateway's dynamic-DNS registration on an application server and its
copy in the gateway's data model in agreement, and serves local D-Bus clients.")
if(ORSM_PCB_LIBRARIES)
  set(daemon_package orvoservicemanager)
  set(CPACK_DEBIAN_DAEMON_DESCRIPTION "dynamic DNS and smart plugs of a home gateway\n${description}")
else()
  set(daemon_package orvoservicemanager-standin)
  set(CPACK_DEBIAN_DAEMON_PACKAGE_CONFLICTS orvoservicemanager)
  set(CPACK_DEBIAN_DAEMON_PACKAGE_REPLACES orvoservicemanager)
  set(CPACK_DEBIAN_DAEMON_DESCRIPTION "daemon of a home gateway, for a desk without one\n${description}
This one talks to the simulated data model of orvoservicemanager-desk, and to
no gateway.")
endif()
set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME ${daemon_package})

set(desk_package orvoservicemanager-desk)
set(CPACK_DEBIAN_DESK_PACKAGE_NAME ${desk_package})
set(CPACK_DEBIAN_DESK_DESCRIPTION "stand-ins for a gateway around orvoservicemanager
The data-model bus, its shell client and the servers, all simulated, so that
the daemon runs on a desk.")
include(CPack)

# What Debian wants to find with a package.
file(STRINGS ${CMAKE_SOURCE_DIR}/packaging/changelog newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^orvoservicemanager \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "packaging/changelog does not begin with version ${PROJECT_VERSION}")
endif()
file(COPY_FILE ${CMAKE_SOURCE_DIR}/packaging/changelog ${CMAKE_BINARY_DIR}/changelog)
execute_process(COMMAND gzip -9nf ${CMAKE_BINARY_DIR}/changelog COMMAND_ERROR_IS_FATAL ANY)
foreach(component daemon desk)
  if(component IN_LIST CPACK_COMPONENTS_ALL)
    install(FILES ${CMAKE_BINARY_DIR}/changelog.gz packaging/copyright
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${${component}_package} COMPONENT ${component})
  endif()
endforeach()
