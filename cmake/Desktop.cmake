# What the desktop side needs beyond Qt: xcb, for the doctor's look at the X11 system tray.
pkg_check_modules(XCB REQUIRED IMPORTED_TARGET GLOBAL xcb)
target_link_libraries(lumerix_desktop PRIVATE PkgConfig::XCB)
