# What an installation holds beyond the binary and its icons: the demo's example rooms, the man
# page, the XDG autostart entry; and the Debian package built from all of it by CPack
# (scripts/package).

# The demo's example rooms, in share/lumerix/demo in the build tree and after install.
set(LUMERIX_DEMO_RESOURCES ${PROJECT_SOURCE_DIR}/src/app/resources/demo/DefaultReferenceTable.plist)
set(LUMERIX_DEMO_DIR ${CMAKE_BINARY_DIR}/share/lumerix/demo)
add_custom_target(lumerix_demo_resources ALL
  COMMAND ${CMAKE_COMMAND} -E make_directory ${LUMERIX_DEMO_DIR}
  COMMAND ${CMAKE_COMMAND} -E copy_if_different ${LUMERIX_DEMO_RESOURCES} ${LUMERIX_DEMO_DIR}
  DEPENDS ${LUMERIX_DEMO_RESOURCES})
add_dependencies(lumerix lumerix_demo_resources)
install(FILES ${LUMERIX_DEMO_RESOURCES} DESTINATION ${CMAKE_INSTALL_DATADIR}/lumerix/demo)

# The man page, compressed as Debian ships them.
set(LUMERIX_MAN ${CMAKE_BINARY_DIR}/man/lumerix.1)
configure_file(${PROJECT_SOURCE_DIR}/packaging/lumerix.1 ${LUMERIX_MAN} @ONLY)
add_custom_command(OUTPUT ${LUMERIX_MAN}.gz
  COMMAND sh -c "gzip -9n -c '${LUMERIX_MAN}' > '${LUMERIX_MAN}.gz'"
  DEPENDS ${LUMERIX_MAN} VERBATIM)
add_custom_target(lumerix_man ALL DEPENDS ${LUMERIX_MAN}.gz)
install(FILES ${LUMERIX_MAN}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

# The autostart entry belongs in /etc/xdg/autostart whatever the prefix, so a plain
# `cmake --install --prefix ~/.local` leaves it out; the package asks for it by component.
set(LUMERIX_AUTOSTART_DIR /etc/xdg/autostart CACHE PATH "Where the package puts the XDG autostart entry")
install(FILES ${PROJECT_SOURCE_DIR}/packaging/lumerix-autostart.desktop DESTINATION ${LUMERIX_AUTOSTART_DIR}
        RENAME lumerix.desktop COMPONENT autostart EXCLUDE_FROM_ALL)

# Launcher plug-ins: the overview search provider, its D-Bus activation (a search starts the
# tray when it is not running) and the KRunner plug-in. The service file names the binary by its
# absolute path, so it is written at install time for the prefix installed to (the package's
# /usr, whatever the build was configured with). The build tree's copy is what the end-to-end
# tests start the build's tray from.
set(LUMERIX_INSTALLED_BINARY ${CMAKE_INSTALL_FULL_BINDIR}/lumerix)
configure_file(${PROJECT_SOURCE_DIR}/packaging/com.zemko.Lumerix.service.in
               ${CMAKE_BINARY_DIR}/packaging/com.zemko.Lumerix.service @ONLY)
install(CODE "
  file(READ \"${PROJECT_SOURCE_DIR}/packaging/com.zemko.Lumerix.service.in\" lumerix_service)
  string(REPLACE \"@LUMERIX_INSTALLED_BINARY@\" \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/lumerix\"
         lumerix_service \"\${lumerix_service}\")
  file(WRITE \"${CMAKE_BINARY_DIR}/packaging/installed/com.zemko.Lumerix.service\" \"\${lumerix_service}\")
  file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}/dbus-1/services\" TYPE FILE
       FILES \"${CMAKE_BINARY_DIR}/packaging/installed/com.zemko.Lumerix.service\")")
install(FILES ${PROJECT_SOURCE_DIR}/packaging/com.zemko.Lumerix.search-provider.ini
        DESTINATION ${CMAKE_INSTALL_DATADIR}/gnome-shell/search-providers)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/lumerix-runner.desktop
        DESTINATION ${CMAKE_INSTALL_DATADIR}/krunner/dbusplugins RENAME com.zemko.Lumerix.desktop)
# What software centres list, and what a distribution expects beside every package: the copyright
# (machine-readable) and the changelog, gzipped, in the package's doc folder.
install(FILES ${PROJECT_SOURCE_DIR}/packaging/com.zemko.Lumerix.metainfo.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)
set(LUMERIX_CHANGELOG ${CMAKE_BINARY_DIR}/packaging/changelog.gz)
add_custom_command(OUTPUT ${LUMERIX_CHANGELOG}
  COMMAND sh -c "gzip -9n -c '${PROJECT_SOURCE_DIR}/packaging/changelog' > '${LUMERIX_CHANGELOG}'"
  DEPENDS ${PROJECT_SOURCE_DIR}/packaging/changelog VERBATIM)
add_custom_target(lumerix_changelog ALL DEPENDS ${LUMERIX_CHANGELOG})
install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${LUMERIX_CHANGELOG}
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/lumerix)

# Packaging needs the program, not the tests and benchmarks.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY TRUE)

execute_process(COMMAND dpkg --print-architecture OUTPUT_VARIABLE LUMERIX_DEB_ARCH
                OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
if(NOT LUMERIX_DEB_ARCH)
  set(LUMERIX_DEB_ARCH ${CMAKE_SYSTEM_PROCESSOR})
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME lumerix)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Lumerix developers <developers@lumerix.zemko.com>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "tray utility that connects the sender to a meeting-room receiver")
# CPack puts the summary first and indents the rest for the control file; the lines are kept
# within 80 columns here, as Debian asks.
set(CPACK_PACKAGE_DESCRIPTION "Lumerix lists the presentation receivers nearby (Bluetooth LE, through
BlueZ) in the system tray, strongest signal first, and hands the one you pick
to the sender application, which then shows your screen in that meeting room.

Started at login, it waits quietly in the tray until Bluetooth is on.")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_COMPONENTS_ALL Unspecified autostart)
set(CPACK_DEBIAN_PACKAGE_NAME lumerix)
set(CPACK_DEBIAN_FILE_NAME lumerix_${PROJECT_VERSION}_${LUMERIX_DEB_ARCH}.deb)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${LUMERIX_DEB_ARCH})
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Libraries the binary links come from dpkg-shlibdeps; the SVG icon engine is a plugin Qt loads
# at run time, which dpkg-shlibdeps cannot see.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libqt6svg6")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "bluez, libgtk-3-bin")
# An administrator's edits to the autostart entry survive upgrades. No maintainer scripts: removing
# the package never touches a user's saved receivers.
file(WRITE ${CMAKE_BINARY_DIR}/packaging/conffiles "${LUMERIX_AUTOSTART_DIR}/lumerix.desktop\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/packaging/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
