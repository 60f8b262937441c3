# Debian packages: `cpack -G DEB` in the build folder (or scripts/package.sh)
# writes tessaline_<version>_<arch>.deb, and tessaline-cloud_<...>.deb when
# the service is built. Two packages because they are two products: a
# desktop needs no system service, and a server needs no widgets.
# Included last, after every install() rule.
set(TSL_PACKAGE_MAINTAINER "MEROVAN <tessaline@merovan.com>" CACHE STRING
    "Maintainer field of the Debian packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tessaline)
set(CPACK_PACKAGE_VENDOR MEROVAN)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${TSL_PACKAGE_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
# Install-time rules (the service's unit) must see /usr, not the staging
# folder, as the prefix.
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL tessaline)
if(TSL_BUILD_SERVER)
    list(APPEND CPACK_COMPONENTS_ALL cloud)
endif()

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Library dependencies come from dpkg-shlibdeps (dpkg-dev); plugins that Qt
# loads at run time are not linked, so they are named by hand.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_TESSALINE_PACKAGE_NAME tessaline)
set(CPACK_DEBIAN_TESSALINE_PACKAGE_SECTION comm)
# Opening the log folder and web pages goes through xdg-open.
set(CPACK_DEBIAN_TESSALINE_PACKAGE_RECOMMENDS "xdg-utils")
set(CPACK_DEBIAN_TESSALINE_DESCRIPTION
"terminal for serial ports and networks
Tessaline talks to devices over serial lines and networks: local serial
ports, TCP client and server, UDP, and serial ports on other machines through
RFC 2217 or a cloud relay. Each pane of its window shows received data as
text or hexadecimal and sends text or hexadecimal with line endings,
checksums and repetition. It keeps data logs, transfers files with XMODEM
and YMODEM, calculates checksums and CRCs, builds Modbus requests and saves
whole arrangements as project files (*.tsl).")

set(CPACK_DEBIAN_CLOUD_PACKAGE_NAME tessaline-cloud)
set(CPACK_DEBIAN_CLOUD_PACKAGE_SECTION net)
set(CPACK_DEBIAN_CLOUD_PACKAGE_DEPENDS "libqt6sql6-sqlite")
set(CPACK_DEBIAN_CLOUD_PACKAGE_SUGGESTS "libqt6sql6-psql, postgresql")
set(CPACK_DEBIAN_CLOUD_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/debian/postinst
    ${CMAKE_CURRENT_LIST_DIR}/debian/prerm
    ${CMAKE_CURRENT_LIST_DIR}/debian/postrm)
set(CPACK_DEBIAN_CLOUD_DESCRIPTION
"self-hostable cloud service for Tessaline
Accounts, settings sync, the monthly traffic quota and the WebSocket
endpoints that Tessaline's cloud features talk to, in one executable.
SQLite by default; PostgreSQL when several instances share the load. Ships
a systemd unit, tessaline-cloud.service, which is not enabled on install.")

set(CPACK_SOURCE_IGNORE_FILES "/\\\\.git/" "/build[^/]*/" "/\\\\.cache/")

include(CPack)
