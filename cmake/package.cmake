# The Debian package, made by `cpack -G DEB` (scripts/package) from the
# install rules of cmake/install.cmake, under /usr.
set(KST_MAINTAINER "kst developers <kst@morvane.invalid>")

# A native package's history, as Debian keeps it: the version built, when.
string(TIMESTAMP KST_CHANGELOG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(dist/debian/changelog.in ${CMAKE_BINARY_DIR}/debian/changelog @ONLY)
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/debian/changelog.gz
  COMMAND gzip -9nkf ${CMAKE_BINARY_DIR}/debian/changelog
  DEPENDS ${CMAKE_BINARY_DIR}/debian/changelog VERBATIM)
add_custom_target(debian-changelog ALL DEPENDS ${CMAKE_BINARY_DIR}/debian/changelog.gz)
install(FILES ${CMAKE_BINARY_DIR}/debian/changelog.gz DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kst)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${KST_MAINTAINER}")
set(CPACK_PACKAGE_VENDOR "Morvane")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "stream snapshot manager for MPEG transport streams")
set(CPACK_PACKAGE_DESCRIPTION
"kst reads one MPEG transport stream (UDP or RTP, unicast or multicast, TCP,
HTTP) into a ring cache in POSIX shared memory, analyses its timing (PAT,
PMT, PCR, PTS, DTS) and writes alerts and statistics to a log made for
machines. On SIGUSR2 it writes the last mebibytes of the stream, bit-exact,
to a snapshot file.
.
The package holds kst, kst-web (the snapshots and instances of a host over
HTTP), lardcat (the reader of kst's flight-recorder rings), their manual
pages and bash completions, systemd units (kst@.service, one instance per
source, and kst-web.service) and example configurations. It creates the
system user kst that the units run as.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The libraries' packages (libconfig9, libstdc++6, libc6 ...) come from
# dpkg-shlibdeps; useradd, which the maintainer script calls, from passwd.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "passwd")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_SOURCE_DIR}/dist/debian/postinst ${CMAKE_SOURCE_DIR}/dist/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# The package is made of the installed files only, never of the tests'.
set(CPACK_INSTALL_CMAKE_PROJECTS "${CMAKE_BINARY_DIR};kst;ALL;/")
include(CPack)
