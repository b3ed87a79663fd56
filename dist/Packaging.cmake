# `cpack -G DEB` in a build configured with the prefix /usr (the `package` preset) makes
# morvane_{version}_amd64.deb of everything `cmake --install` installs.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME morvane)
set(CPACK_PACKAGE_VENDOR Quillfen)
set(CPACK_PACKAGE_CONTACT "Morvane maintainers <maintainers@quillfen.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "bring lost or changed calendar events back")
# CPack puts the summary first, indents each line and marks the empty one as a paragraph break;
# lines stay under 80 columns.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "Morvane reads earlier states of the calendars (its own hourly restore
points, their copies from other computers, Time Machine backups, folders
of .ics files), compares them with the calendars as they are now, event
by event and occurrence by occurrence, and writes back the events picked.

This package holds the command-line program morvane, the helper window
MorvaneHelper, the lzfse tool, and the core library with its headers for
programs built against it.")
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# The libraries the programs link come from dpkg-shlibdeps; the timer needs a systemd user session,
# and bash loads the completion through bash-completion.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "systemd, bash-completion")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS
    "pkg-config, nlohmann-json3-dev, libicu-dev, libplist-dev, libical-dev, libsqlite3-dev, libssl-dev")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                                WORLD_READ WORLD_EXECUTE)
include(CPack)
