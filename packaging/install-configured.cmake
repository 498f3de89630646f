# Run at installation: units and the datastore command, with the prefix that they are installed into; manual pages.
if(CMAKE_INSTALL_PREFIX MATCHES "^/usr(/|$)")
  set(LACPD_SYSCONFDIR /etc)
else()
  set(LACPD_SYSCONFDIR "${CMAKE_INSTALL_PREFIX}/etc")
endif()

function(install_configured template destination kind)
  get_filename_component(name "${template}" NAME_WLE) # without .in
  configure_file("${LACPD_SOURCE}/${template}" "${LACPD_WORK}/configured/${name}" @ONLY)
  file(INSTALL "${LACPD_WORK}/configured/${name}" DESTINATION "${CMAKE_INSTALL_PREFIX}/${destination}" TYPE ${kind})
  set(CMAKE_INSTALL_MANIFEST_FILES ${CMAKE_INSTALL_MANIFEST_FILES} PARENT_SCOPE)
endfunction()

install_configured(olt-datastore.in sbin PROGRAM)
foreach(unit olt-datastore olt-switch lacpd)
  install_configured(systemd/${unit}.service.in lib/systemd/system FILE)
endforeach()

function(install_compressed file destination)
  get_filename_component(name "${file}" NAME)
  set(compressed "${LACPD_WORK}/configured/${name}.gz")
  execute_process(COMMAND gzip -9nc "${LACPD_SOURCE}/${file}" OUTPUT_FILE "${compressed}" COMMAND_ERROR_IS_FATAL ANY)
  file(INSTALL "${compressed}" DESTINATION "${CMAKE_INSTALL_PREFIX}/${destination}" TYPE FILE)
  set(CMAKE_INSTALL_MANIFEST_FILES ${CMAKE_INSTALL_MANIFEST_FILES} PARENT_SCOPE)
endfunction()

foreach(page lacpd.8 olt-switch.8 olt-datastore.8)
  install_compressed(man/${page} share/man/man8)
endforeach()
install_compressed(changelog share/doc/lacpd)

if(NOT EXISTS "$ENV{DESTDIR}${LACPD_SYSCONFDIR}/default/olt-switch") # an operator's file stays
  file(INSTALL "${LACPD_SOURCE}/default/olt-switch" DESTINATION "${LACPD_SYSCONFDIR}/default" TYPE FILE)
endif()
