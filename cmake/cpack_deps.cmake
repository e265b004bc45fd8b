# Read by cpack (CPACK_PROJECT_CONFIG_FILE). For a cross build dpkg-shlibdeps
# finds the libraries' minimum versions in the cross libraries' own symbol
# files, naming them libgcc-s1-armhf-cross or libc6:armhf; on the board they
# are the plain packages.

# The Depends of `binaries` (a list) as dpkg-shlibdeps finds them in the
# library folders `libdirs`, with the board's package names, into `out`; run
# in a folder `name` of its own, with `local` as its shlibs.local when given.
function(zolvin_shlibdeps out name libdirs binaries local)
  set(work ${CPACK_PACKAGE_DIRECTORY}/${name})
  file(MAKE_DIRECTORY ${work}/debian)
  file(TOUCH ${work}/debian/control)
  if(local)
    file(WRITE ${work}/debian/shlibs.local "${local}\n")
  endif()
  set(search)
  foreach(dir ${libdirs})
    list(APPEND search -l${dir})
  endforeach()
  execute_process(
    COMMAND dpkg-shlibdeps -O ${search} ${binaries}
    WORKING_DIRECTORY ${work} RESULT_VARIABLE failed OUTPUT_VARIABLE found ERROR_VARIABLE said)
  if(failed OR NOT found MATCHES "^shlibs:Depends=")
    message(FATAL_ERROR "dpkg-shlibdeps on ${binaries} failed:\n${said}")
  endif()
  string(REGEX REPLACE "^shlibs:Depends=" "" libs "${found}")
  string(STRIP "${libs}" libs)
  set(arch ${CPACK_DEBIAN_PACKAGE_ARCHITECTURE})
  string(REGEX REPLACE ":${arch}|-${arch}-cross" "" libs "${libs}")
  set(${out} "${libs}" PARENT_SCOPE)
endfunction()

if(CPACK_GENERATOR STREQUAL "DEB" AND CPACK_ZOLVIN_CROSS_LIBDIR)
  zolvin_shlibdeps(libs shlibdeps "${CPACK_ZOLVIN_CROSS_LIBDIR}" "${CPACK_ZOLVIN_BINARIES}" "")
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "${libs}, ${CPACK_DEBIAN_PACKAGE_DEPENDS}")
endif()
# The telemetry program links libmosquitto from a sysroot of unpacked
# packages (scripts/mosquitto-sysroot.sh): their shlibs records say which
# package each library comes from.
if(CPACK_GENERATOR STREQUAL "DEB" AND CPACK_ZOLVIN_MQTT_BINARY)
  file(STRINGS ${CPACK_ZOLVIN_MQTT_SHLIBS} records REGEX "^[^u]")
  list(JOIN records "\n" records)
  zolvin_shlibdeps(libs shlibdeps-mqtt "${CPACK_ZOLVIN_CROSS_LIBDIR};${CPACK_ZOLVIN_MQTT_LIBDIR}"
                   "${CPACK_ZOLVIN_MQTT_BINARY}" "${records}")
  set(CPACK_DEBIAN_MQTT_PACKAGE_DEPENDS "${CPACK_ZOLVIN_MQTT_DEPENDS}, ${libs}")
endif()
