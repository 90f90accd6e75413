# Debian packages, one per component: cpack --config build/release/CPackConfig.cmake. lintian finds no error; its warning
# that cloud-sim and pcb-bus have no manual page stays, for both print their usage.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orvoservicemanager)
set(CPACK_PACKAGE_CONTACT "OrvoServiceManager maintainers <orvoservicemanager@example.net>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_COMPONENTS_ALL daemon)
if(TARGET cloud-sim)
  list(APPEND CPACK_COMPONENTS_ALL desk)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_SET_DESTDIR ON)  # for what stands in /etc
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME orvoservicemanager)
set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS "default-dbus-system-bus | dbus-system-bus, systemd | systemd-sysusers")
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA ${CMAKE_SOURCE_DIR}/packaging/conffiles
    ${CMAKE_SOURCE_DIR}/packaging/postinst ${CMAKE_SOURCE_DIR}/packaging/prerm ${CMAKE_SOURCE_DIR}/packaging/postrm)
set(CPACK_COMPONENT_DAEMON_DESCRIPTION "dynamic DNS and smart plugs of a home gateway
Keeps the gateway's dynamic-DNS registration on an application server and its
copy in the gateway's data model in agreement, and serves local D-Bus clients.")

set(CPACK_DEBIAN_DESK_PACKAGE_NAME orvoservicemanager-desk)
set(CPACK_COMPONENT_DESK_DESCRIPTION "stand-ins for a gateway around orvoservicemanager
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
set(daemon_package orvoservicemanager)
set(desk_package orvoservicemanager-desk)
foreach(component ${CPACK_COMPONENTS_ALL})
  install(FILES ${CMAKE_BINARY_DIR}/changelog.gz packaging/copyright
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${${component}_package} COMPONENT ${component})
endforeach()
