# Debian packages through CPack: libvantdrcore1 (component "runtime") and
# libvantdrcore-dev (component "dev"). scripts/package configures with
# CMAKE_INSTALL_PREFIX=/usr, so the library lands in the multiarch libdir.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libvantdrcore)
set(CPACK_PACKAGE_VENDOR "VantDR")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "VantDR Core developers <vantdr-core@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvantdrcore1)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "VantDR Core services library\nSQLite records, web API messages, durable files, locks and a cache\nshared by processes, for the VantDR disaster-recovery product.")
# shlibdeps adds the C and C++ runtimes, SQLite and JsonCpp; the library
# also runs /usr/bin/uuidgen, /bin/mkdir and /bin/rm.
# A cross build whose sysroot dpkg-shlibdeps cannot read names them by hand.
option(VANTDR_PACKAGE_SHLIBDEPS "Find libvantdrcore1's library dependencies with dpkg-shlibdeps" ON)
set(VANTDR_PACKAGE_LIBRARY_DEPENDS "" CACHE STRING
    "libvantdrcore1's library dependencies, when VANTDR_PACKAGE_SHLIBDEPS is off")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ${VANTDR_PACKAGE_SHLIBDEPS})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "uuid-runtime, coreutils")
if(VANTDR_PACKAGE_LIBRARY_DEPENDS)
  string(APPEND CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS ", ${VANTDR_PACKAGE_LIBRARY_DEPENDS}")
endif()

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvantdrcore-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "VantDR Core services library: development files\nHeaders, the CMake package VantDRCore and the pkg-config module vantdrcore.")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libvantdrcore1 (= ${PROJECT_VERSION}), libjsoncpp-dev, libsqlite3-dev")

include(CPack)
