# Read by cpack: a package for /usr from a tree configured elsewhere would
# ship a systemd unit and library paths that point elsewhere.
if(CPACK_GENERATOR STREQUAL "DEB" AND NOT CPACK_ZX_CONFIGURED_PREFIX STREQUAL "/usr")
  message(FATAL_ERROR "Debian packages are built from a tree configured with "
    "-DCMAKE_INSTALL_PREFIX=/usr (this one: ${CPACK_ZX_CONFIGURED_PREFIX})")
endif()
