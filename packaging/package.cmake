# `cmake --build BUILD --target package` makes BUILD/lacpd_VERSION_ARCHITECTURE.deb.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME lacpd)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "lacpd maintainers <maintainers@lacpd.example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "lacpd bundles uplink ports into channel groups, manual ones or dynamic ones
that speak LACP, and makes the trunks of the switch follow. It is configured
through its shell or through a sysrepo datastore. olt-switch, a software
switch with the driver service that lacpd asks for trunks, is included, and
so are the libraries that Debian does not have.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${LACPD_DEPS_PREFIX}/lib")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "telnet")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_STRIP_FILES ON)
# Units name the prefix and /etc lies outside it, so files are staged below DESTDIR.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    "${CMAKE_CURRENT_SOURCE_DIR}/deb/postinst;${CMAKE_CURRENT_SOURCE_DIR}/deb/prerm"
    "${CMAKE_CURRENT_SOURCE_DIR}/deb/postrm;${CMAKE_CURRENT_SOURCE_DIR}/deb/conffiles")
include(CPack)
