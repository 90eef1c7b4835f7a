# The Debian package of the installed files.

compress(${CMAKE_CURRENT_SOURCE_DIR}/debian/changelog changelog.gz ${CMAKE_INSTALL_DOCDIR})
install(FILES debian/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
  RENAME lora-veyra-server)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_SOURCE_DIR}/build-packages)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PACKAGE_CONTACT
  "lora-veyra-server developers <developers@lora-veyra-server.example>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "bridge between a LoRa network server and the Veyra cloud
Runs on a LoRa gateway alongside the network server. It receives each JSON
datagram that the network server sends over the loopback interface, turns it
into one signed HTTPS request to the Veyra cloud, and publishes the response
on the MQTT broker of the gateway.")
# The CA certificate of the cloud is in ca-certificates. The tools of systemd create the user and
# the log directory, also on systems with another init. dpkg-shlibdeps adds the libraries.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "ca-certificates, systemd | systemd-standalone-sysusers, \
systemd | systemd-standalone-tmpfiles")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "logrotate, mosquitto")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/platform)
if(VEYRA_ARCHITECTURE)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${VEYRA_ARCHITECTURE})
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${CMAKE_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE}
    ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}
    ${CMAKE_SYSROOT}/lib)
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
foreach(file conffiles postinst prerm postrm)
  list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/debian/${file})
endforeach()
include(CPack)
