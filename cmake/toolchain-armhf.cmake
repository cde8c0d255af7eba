# Cross-compiles for the board (32-bit ARM, hard float) with Debian's
# crossbuild-essential-armhf against a Debian armhf sysroot, and runs the built
# programs (tests, test discovery) through qemu-arm.
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
#         -DQUARVEL_SYSROOT=/path/to/sysroot-armhf
#
# The sysroot comes from QUARVEL_SYSROOT, else CMAKE_SYSROOT, else the environment
# variable QUARVEL_SYSROOT, else <source>/sysroot-armhf (scripts/make-armhf-sysroot.sh
# makes one). The compiler prefix can be changed with QUARVEL_CROSS_PREFIX.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(_quarvel_triplet arm-linux-gnueabihf)

if(NOT QUARVEL_SYSROOT)
  if(CMAKE_SYSROOT)
    set(QUARVEL_SYSROOT "${CMAKE_SYSROOT}")
  elseif(DEFINED ENV{QUARVEL_SYSROOT} AND NOT "$ENV{QUARVEL_SYSROOT}" STREQUAL "")
    set(QUARVEL_SYSROOT "$ENV{QUARVEL_SYSROOT}")
  else()
    get_filename_component(QUARVEL_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../sysroot-armhf" ABSOLUTE)
  endif()
endif()
get_filename_component(QUARVEL_SYSROOT "${QUARVEL_SYSROOT}" ABSOLUTE)
if(NOT EXISTS "${QUARVEL_SYSROOT}/usr/include/${_quarvel_triplet}")
  message(FATAL_ERROR
    "'${QUARVEL_SYSROOT}' is no armhf sysroot; make one with scripts/make-armhf-sysroot.sh "
    "and pass it with -DQUARVEL_SYSROOT=<dir>")
endif()
set(QUARVEL_SYSROOT "${QUARVEL_SYSROOT}" CACHE PATH "Debian armhf sysroot to build against" FORCE)
# try_compile projects read this file again and need the same sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QUARVEL_SYSROOT QUARVEL_CROSS_PREFIX)

if(NOT QUARVEL_CROSS_PREFIX)
  set(QUARVEL_CROSS_PREFIX "${_quarvel_triplet}-")
endif()
set(CMAKE_C_COMPILER "${QUARVEL_CROSS_PREFIX}gcc")
set(CMAKE_CXX_COMPILER "${QUARVEL_CROSS_PREFIX}g++")
set(CMAKE_LIBRARY_ARCHITECTURE ${_quarvel_triplet})

set(CMAKE_SYSROOT "${QUARVEL_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${QUARVEL_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Libraries pulled in indirectly (those behind glibmm, or libcurl behind a shared HDF5) are
# resolved by the linker from the sysroot, not from the host.
foreach(_dir "${QUARVEL_SYSROOT}/lib/${_quarvel_triplet}" "${QUARVEL_SYSROOT}/usr/lib/${_quarvel_triplet}")
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${_dir}")
  string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,-rpath-link,${_dir}")
endforeach()

# Built programs run through qemu-arm with the sysroot as the ARM root.
find_program(QUARVEL_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(NOT QUARVEL_QEMU_ARM)
  message(FATAL_ERROR "qemu-arm not found (apt-get install qemu-user or qemu-user-static)")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR "${QUARVEL_QEMU_ARM};-L;${QUARVEL_SYSROOT}")

# pkg-config must see the sysroot's .pc files only, and prefix the paths they name.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${QUARVEL_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${QUARVEL_SYSROOT}/usr/lib/${_quarvel_triplet}/pkgconfig:${QUARVEL_SYSROOT}/usr/lib/pkgconfig:${QUARVEL_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Debian keeps HDF5 under hdf5/serial. Naming that root also stops FindHDF5 from running
# the host's h5cc wrapper, which would hand back the host's x86-64 include and library paths.
set(HDF5_ROOT "/usr/lib/${_quarvel_triplet}/hdf5/serial")
set(HDF5_NO_FIND_PACKAGE_CONFIG_FILE ON)
