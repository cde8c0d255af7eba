# Debian package of quarvel, built by CPack's DEB generator only on request:
#   cmake --build BUILD --target package    (or: cpack --config BUILD/CPackConfig.cmake)
# It holds what the install rules install, under /usr whatever CMAKE_INSTALL_PREFIX says.
# Depends is computed by dpkg-shlibdeps from the libraries the program links; a cross build
# takes them, and their packages' shlibs and symbols, from the sysroot. Suggests names what
# reads a recording.

set(QUARVEL_PACKAGE_MAINTAINER "quarvel developers <quarvel@example.org>"
    CACHE STRING "Maintainer of the Debian package and of its changelog, 'Name <address>'")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quarvel)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_VENDOR "quarvel developers")
set(CPACK_PACKAGE_CONTACT "${QUARVEL_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "record FPGA recorder data into HDF5 files")
set(CPACK_PACKAGE_DESCRIPTION
    "quarvel records one block of data from the FPGA recorder of a 32-bit ARM Linux\n"
    "board into an HDF5 file. It programs the recorder through sysfs, reads its\n"
    "character device, optionally decodes Tavo ADC or Lumetra DDS words, and writes\n"
    "one chunked, deflate-compressed dataset of 32-bit integers. A mock scheme\n"
    "simulates the recorder, so that it also runs without the board.")
string(JOIN "" CPACK_PACKAGE_DESCRIPTION ${CPACK_PACKAGE_DESCRIPTION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# Debian's modes, whatever the umask of the one who packages.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT) # quarvel_<version>_<architecture>.deb
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${QUARVEL_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# What reads a recording: h5dump and friends, and h5py.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "hdf5-tools, python3-h5py")

if(CMAKE_CROSSCOMPILING)
  # CPack would name the build machine's architecture; Debian's name for the target's is wanted.
  find_program(QUARVEL_DPKG_ARCHITECTURE dpkg-architecture)
  if(QUARVEL_DPKG_ARCHITECTURE AND CMAKE_LIBRARY_ARCHITECTURE)
    execute_process(
      COMMAND ${QUARVEL_DPKG_ARCHITECTURE} -t ${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
      OUTPUT_VARIABLE QUARVEL_DEB_ARCH OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  endif()
  if(NOT QUARVEL_DEB_ARCH)
    message(STATUS "no Debian architecture for '${CMAKE_LIBRARY_ARCHITECTURE}'; "
                   "install dpkg-dev to build packages")
  endif()
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE "${QUARVEL_DEB_ARCH}")
  # dpkg-shlibdeps looks for the target's libraries in the sysroot ...
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
      "${CMAKE_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE}"
      "${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}")
  # ... and in a dpkg database of the sysroot's packages, made when packaging (see the file).
  set(QUARVEL_SYSROOT_ADMINDIR "${PROJECT_BINARY_DIR}/sysroot-dpkg")
  configure_file("${CMAKE_CURRENT_LIST_DIR}/QuarvelCPackCross.cmake.in"
                 "${PROJECT_BINARY_DIR}/QuarvelCPackCross.cmake" @ONLY)
  set(CPACK_PROJECT_CONFIG_FILE "${PROJECT_BINARY_DIR}/QuarvelCPackCross.cmake")
endif()

include(CPack)
