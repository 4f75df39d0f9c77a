# Cross-compiling for 32-bit ARM hard-float with Debian's cross toolchain
# (g++-arm-linux-gnueabihf: its libc and libstdc++ live under
# /usr/arm-linux-gnueabihf) and a sysroot holding the armhf packages of the
# libraries we link, laid out as a Debian root (usr/include,
# usr/lib/arm-linux-gnueabihf). scripts/test-armhf builds one; pass your own
# with -DVANTDR_ARMHF_SYSROOT=<dir>. Tests run under qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(VANTDR_ARMHF_SYSROOT "$ENV{VANTDR_ARMHF_SYSROOT}" CACHE PATH
    "Root holding the armhf packages of SQLite, JsonCpp and GoogleTest")
set(VANTDR_ARMHF_CROSS_ROOT "/usr/arm-linux-gnueabihf" CACHE PATH
    "The cross toolchain's target root (libc, libstdc++)")
# try_compile projects read this file again without the cache.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VANTDR_ARMHF_SYSROOT VANTDR_ARMHF_CROSS_ROOT)
if(NOT IS_DIRECTORY "${VANTDR_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")
  message(FATAL_ERROR "VANTDR_ARMHF_SYSROOT='${VANTDR_ARMHF_SYSROOT}' is not an armhf root "
                      "(scripts/test-armhf makes one)")
endif()
set(_vantdr_armhf_libdir "${VANTDR_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")

# GCC notes that std::map iterators are passed differently since GCC 7.1:
# nothing here is linked with code that old.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

set(CMAKE_FIND_ROOT_PATH "${VANTDR_ARMHF_SYSROOT}" "${VANTDR_ARMHF_CROSS_ROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The sysroot's libraries need each other at link time (libjsoncpp for the
# library's consumers, libsqlite3 behind libvantdrcore).
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-Wl,-rpath-link,${_vantdr_armhf_libdir}")
endforeach()

set(ENV{PKG_CONFIG_LIBDIR} "${_vantdr_armhf_libdir}/pkgconfig:${VANTDR_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${VANTDR_ARMHF_SYSROOT}")

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L "${VANTDR_ARMHF_CROSS_ROOT}"
    -E "LD_LIBRARY_PATH=${_vantdr_armhf_libdir}")
