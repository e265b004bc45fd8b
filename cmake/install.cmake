# What a board gets: the daemon, the client tool, the DHCP client script at the
# path the daemon runs it from, an example configuration, a systemd unit and a
# SysV init script, and the manual pages. Installed under /usr by the package
# (the configuration and the init script under /etc).
# The daemon's own paths are fixed (/etc/zolvin_4g.conf, the DHCP script
# under /usr/share/udhcpc), so the board's layout, /usr, is the default prefix.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Install prefix" FORCE)
endif()
include(GNUInstallDirs)
# Two packages when the telemetry program is built: the daemon's files are
# the component "daemon", the program's "mqtt".
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME daemon)

set(ZOLVIN_DAEMON_PATH ${CMAKE_INSTALL_FULL_SBINDIR}/zolvin_4g)
set(dist ${CMAKE_SOURCE_DIR}/dist)
configure_file(${dist}/zolvin_4g.service.in ${CMAKE_BINARY_DIR}/dist/zolvin_4g.service @ONLY)
configure_file(${dist}/zolvin_4g.init.in ${CMAKE_BINARY_DIR}/dist/zolvin_4g.init @ONLY)

install(TARGETS zolvin_4g DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS zolvin_4g_ctl DESTINATION ${CMAKE_INSTALL_BINDIR})
# The daemon runs the script by this absolute path, whatever the prefix.
install(PROGRAMS ${dist}/zolvin_4g.script DESTINATION /usr/share/udhcpc)
install(FILES ${dist}/zolvin_4g.conf DESTINATION /etc)
install(PROGRAMS ${CMAKE_BINARY_DIR}/dist/zolvin_4g.init DESTINATION /etc/init.d RENAME zolvin_4g)
install(FILES ${CMAKE_BINARY_DIR}/dist/zolvin_4g.service
        DESTINATION ${CMAKE_INSTALL_PREFIX}/lib/systemd/system)

# Debian wants manual pages compressed; without gzip they go in as they are.
find_program(ZOLVIN_GZIP gzip)
set(pages zolvin_4g.8 zolvin_4g_ctl.1)
if(TARGET zolvin_4g_mqtt)
  set(ZOLVIN_MQTT_PATH ${CMAKE_INSTALL_FULL_SBINDIR}/zolvin_4g_mqtt)
  configure_file(${dist}/zolvin_4g_mqtt.service.in ${CMAKE_BINARY_DIR}/dist/zolvin_4g_mqtt.service @ONLY)
  install(TARGETS zolvin_4g_mqtt DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT mqtt)
  install(FILES ${dist}/zolvin_4g_mqtt.conf DESTINATION /etc COMPONENT mqtt)
  install(FILES ${CMAKE_BINARY_DIR}/dist/zolvin_4g_mqtt.service
          DESTINATION ${CMAKE_INSTALL_PREFIX}/lib/systemd/system COMPONENT mqtt)
  list(APPEND pages zolvin_4g_mqtt.8)
endif()
foreach(page ${pages})
  set(component daemon)
  if(page MATCHES "mqtt")
    set(component mqtt)
  endif()
  string(REGEX REPLACE ".*\\." "" section ${page})
  set(source ${dist}/${page})
  if(ZOLVIN_GZIP)
    set(packed ${CMAKE_BINARY_DIR}/dist/${page}.gz)
    add_custom_command(OUTPUT ${packed}
      COMMAND ${ZOLVIN_GZIP} -9n -c ${source} > ${packed}
      DEPENDS ${source} VERBATIM)
    list(APPEND ZOLVIN_MAN_PAGES ${packed})
    install(FILES ${packed} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
  else()
    install(FILES ${source} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
  endif()
endforeach()
add_custom_target(zolvin_man_pages ALL DEPENDS ${ZOLVIN_MAN_PAGES})

# cpack -G DEB. The architecture is the build's (dpkg's name for it), or the
# toolchain file's (ZOLVIN_DEB_ARCH) for a cross build.
set(CPACK_PACKAGE_NAME zolvin-4g)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "zolvin_4g maintainers <zolvin-4g@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "LTE module supervisor and client server for embedded boards")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
  "LTE module supervisor and client server for embedded boards\n\
Keeps the mobile data link of a board with a USB LTE module (EC20, EC200T or\n\
EC200S families) up: drivers, power and reset lines, dialling, DHCP, link\n\
checks and power-cycling a module that stops working. Serves one local client\n\
(zolvin_4g_ctl) on an abstract Unix socket with calls, SMS, location and\n\
module firmware updates.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
if(ZOLVIN_DEB_ARCH)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${ZOLVIN_DEB_ARCH})
endif()
# What the daemon runs: udhcpc through busybox, modprobe, ifconfig and route
# (also the DHCP script's), killall for the app_name program.
set(ZOLVIN_DEB_RUNS "busybox | busybox-static, kmod, net-tools, psmisc")
set(CPACK_DEBIAN_PACKAGE_DEPENDS ${ZOLVIN_DEB_RUNS})
if(ZOLVIN_STATIC)
  # Nothing to add: no shared library.
elseif(CMAKE_CROSSCOMPILING)
  set(CPACK_ZOLVIN_CROSS_LIBDIR ${CMAKE_FIND_ROOT_PATH}/lib)
  set(CPACK_ZOLVIN_BINARIES ${CMAKE_BINARY_DIR}/zolvin_4g ${CMAKE_BINARY_DIR}/tools/ctl/zolvin_4g_ctl)
  set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/cpack_deps.cmake)
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "systemd | sysvinit-core")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${dist}/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)
if(TARGET zolvin_4g_mqtt)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_COMPONENTS_ALL daemon mqtt)
  set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME zolvin-4g)
  set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA ${dist}/conffiles)
  set(CPACK_DEBIAN_DAEMON_DESCRIPTION "${CPACK_DEBIAN_PACKAGE_DESCRIPTION}")
  # CPack puts the one summary before every package's description; each
  # description's first line is its own summary instead.
  unset(CPACK_PACKAGE_DESCRIPTION_SUMMARY)
  set(CPACK_DEBIAN_MQTT_PACKAGE_NAME zolvin-4g-mqtt)
  set(CPACK_DEBIAN_MQTT_PACKAGE_CONTROL_EXTRA ${dist}/mqtt/conffiles)
  set(CPACK_DEBIAN_MQTT_PACKAGE_SUGGESTS "systemd")
  set(ZOLVIN_MQTT_DEPENDS "zolvin-4g (= ${PROJECT_VERSION})")
  set(CPACK_DEBIAN_MQTT_PACKAGE_DEPENDS ${ZOLVIN_MQTT_DEPENDS})
  set(CPACK_DEBIAN_MQTT_DESCRIPTION
    "Fleet telemetry of zolvin_4g to an MQTT broker\n\
Publishes the events and the state of the zolvin_4g daemon to an MQTT broker\n\
(QoS 1, a retained online flag with a last will, a retained state), over TLS\n\
if configured, keeping events while the broker cannot be reached.")
  if(CMAKE_CROSSCOMPILING AND NOT ZOLVIN_STATIC)
    set(CPACK_ZOLVIN_MQTT_BINARY ${CMAKE_BINARY_DIR}/tools/mqtt/zolvin_4g_mqtt)
    set(CPACK_ZOLVIN_MQTT_LIBDIR ${ZOLVIN_MOSQUITTO_LIBDIR})
    set(CPACK_ZOLVIN_MQTT_SHLIBS ${ZOLVIN_MOSQUITTO_ROOT}/shlibs/all)
    set(CPACK_ZOLVIN_MQTT_DEPENDS ${ZOLVIN_MQTT_DEPENDS})
  endif()
endif()
include(CPack)
