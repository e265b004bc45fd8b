# Read by cpack (CPACK_PROJECT_CONFIG_FILE). For a cross build dpkg-shlibdeps
# finds the libraries' minimum versions in the cross libraries' own symbol
# files, naming them libgcc-s1-armhf-cross or libc6:armhf; on the board they
# are the plain packages.
if(CPACK_GENERATOR STREQUAL "DEB" AND CPACK_ZOLVIN_CROSS_LIBDIR)
  set(work ${CPACK_PACKAGE_DIRECTORY}/shlibdeps)
  file(MAKE_DIRECTORY ${work}/debian)
  file(TOUCH ${work}/debian/control)
  execute_process(
    COMMAND dpkg-shlibdeps -O -l${CPACK_ZOLVIN_CROSS_LIBDIR} ${CPACK_ZOLVIN_BINARIES}
    WORKING_DIRECTORY ${work} RESULT_VARIABLE failed OUTPUT_VARIABLE found ERROR_VARIABLE said)
  if(failed OR NOT found MATCHES "^shlibs:Depends=")
    message(FATAL_ERROR "dpkg-shlibdeps on the cross binaries failed:\n${said}")
  endif()
  string(REGEX REPLACE "^shlibs:Depends=" "" libs "${found}")
  string(STRIP "${libs}" libs)
  set(arch ${CPACK_DEBIAN_PACKAGE_ARCHITECTURE})
  string(REGEX REPLACE ":${arch}|-${arch}-cross" "" libs "${libs}")
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "${libs}, ${CPACK_DEBIAN_PACKAGE_DEPENDS}")
endif()
# The telemetry program links libmosquitto from a sysroot of unpacked
# packages (scripts/mosquitto-sysroot.sh): their shlibs records say which
# package each library comes from.
if(CPACK_GENERATOR STREQUAL "DEB" AND CPACK_ZOLVIN_MQTT_BINARY)
  set(work ${CPACK_PACKAGE_DIRECTORY}/shlibdeps-mqtt)
  file(MAKE_DIRECTORY ${work}/debian)
  file(TOUCH ${work}/debian/control)
  file(STRINGS ${CPACK_ZOLVIN_MQTT_SHLIBS} records REGEX "^[^u]")
  list(JOIN records "\n" records)
  file(WRITE ${work}/debian/shlibs.local "${records}\n")
  execute_process(
    COMMAND dpkg-shlibdeps -O -l${CPACK_ZOLVIN_CROSS_LIBDIR} -l${CPACK_ZOLVIN_MQTT_LIBDIR} ${CPACK_ZOLVIN_MQTT_BINARY}
    WORKING_DIRECTORY ${work} RESULT_VARIABLE failed OUTPUT_VARIABLE found ERROR_VARIABLE said)
  if(failed OR NOT found MATCHES "^shlibs:Depends=")
    message(FATAL_ERROR "dpkg-shlibdeps on zolvin_4g_mqtt failed:\n${said}")
  endif()
  string(REGEX REPLACE "^shlibs:Depends=" "" libs "${found}")
  string(STRIP "${libs}" libs)
  set(arch ${CPACK_DEBIAN_PACKAGE_ARCHITECTURE})
  string(REGEX REPLACE ":${arch}|-${arch}-cross" "" libs "${libs}")
  set(CPACK_DEBIAN_MQTT_PACKAGE_DEPENDS "${CPACK_ZOLVIN_MQTT_DEPENDS}, ${libs}")
endif()
