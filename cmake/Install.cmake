# What `cmake --install` puts on the machine, and the Debian package that
# carries the same (cpack -G DEB, from the build directory).
include(GNUInstallDirs)

set(_veltrane_programs veltrane)
if(TARGET veltrane-extension)
  # Beside `veltrane`: that is where `veltrane run` looks for it first.
  list(APPEND _veltrane_programs veltrane-extension)
endif()
install(TARGETS ${_veltrane_programs} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(FILES ${PROJECT_SOURCE_DIR}/packaging/veltrane.bash-completion
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions RENAME veltrane)

# The unit names the program by its installed path, and the prefix is known
# only when installing: cpack installs under /usr whatever the build's prefix.
set(_veltrane_unit ${PROJECT_BINARY_DIR}/packaging/veltrane.service)
install(CODE "
  set(VELTRANE_BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
  configure_file(\"${PROJECT_SOURCE_DIR}/packaging/veltrane.service.in\" \"${_veltrane_unit}\" @ONLY)
")
# systemd reads /usr/lib/systemd/system and /usr/local/lib/systemd/system.
install(FILES ${_veltrane_unit} DESTINATION lib/systemd/system)

# Named after the package, not the project.
set(_veltrane_docdir ${CMAKE_INSTALL_DATAROOTDIR}/doc/veltrane)
install(FILES ${PROJECT_SOURCE_DIR}/examples/default-profile.json
              ${PROJECT_SOURCE_DIR}/examples/demo-profile.json
        DESTINATION ${_veltrane_docdir}/examples)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${_veltrane_docdir})

set(VELTRANE_PACKAGE_MAINTAINER "Veltrane developers <veltrane@example.org>"
    CACHE STRING "Maintainer field of the Debian package")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME veltrane)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${VELTRANE_PACKAGE_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "per-application transparent traffic redirector")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Debug information stays in the build tree.
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${VELTRANE_PACKAGE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# CPack puts the summary first and indents each line.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "Decides, per application, what happens to every new outgoing connection:
direct, refused, carried through a SOCKS5 or HTTP CONNECT proxy, or pinned
to one network interface. Ships the veltrane command, its capture extension
and the veltrane.service systemd unit (not enabled on installation).")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# postinst makes the group with addgroup.
set(CPACK_DEBIAN_PACKAGE_DEPENDS adduser)
# The network's Wi-Fi name, for profiles bound to a network.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS iw)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/debian/postinst ${PROJECT_SOURCE_DIR}/packaging/debian/prerm
    ${PROJECT_SOURCE_DIR}/packaging/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
