# Man pages, shell completion and the Debian packages.
#
#   cmake -S . -B build/pkg -G Ninja -DCMAKE_BUILD_TYPE=Release \
#         -DCMAKE_INSTALL_PREFIX=/usr -DZAR_BUILD_TESTS=OFF
#   cmake --build build/pkg && (cd build/pkg && cpack -G DEB)
#
# makes libzar (the shared library and the catalogs), libzar-dev (headers,
# static library, CMake package, pkg-config file) and zar-tools (the zar
# command, its man pages and bash completion). With the prefix /usr the
# library lands in the multiarch directory and finds its catalogs in
# /usr/share/zar/nls/msg without any setting. scripts/packages does all of
# this and installs, tries and removes the packages.

install(FILES ${PROJECT_SOURCE_DIR}/packaging/man/zar.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/man/zar-routing.5
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT tools)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/completion/zar
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)

# One changelog, compressed as Debian keeps it, in each package's doc directory.
set(ZAR_CHANGELOG_GZ ${CMAKE_BINARY_DIR}/changelog.Debian.gz)
execute_process(COMMAND gzip -9 -n -c ${PROJECT_SOURCE_DIR}/packaging/changelog
                OUTPUT_FILE ${ZAR_CHANGELOG_GZ})
foreach(pair "runtime;libzar" "dev;libzar-dev" "tools;zar-tools")
  list(GET pair 0 component)
  list(GET pair 1 package)
  install(FILES ${ZAR_CHANGELOG_GZ} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
          COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zar)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "libzar project")
# Each package's summary is the first line of its own description, not the
# project's description, which CPack would put in front of it.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_CONTACT "libzar maintainers <libzar@localhost>")
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)
# The C library, the C++ runtime and libgcc, at the versions of the build
# machine's Debian release (12, bookworm) or later.
set(ZAR_DEB_RUNTIME_DEPENDS "libc6 (>= 2.34), libstdc++6 (>= 12), libgcc-s1 (>= 3.0)")
set(ZAR_DEB_EXACT "libzar (= ${PROJECT_VERSION}-1)")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzar)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${ZAR_DEB_RUNTIME_DEPENDS}")
# A shlibs file and the ldconfig trigger for the package with the library.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The first line of a description is the package's summary.
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "libzar: common support library of the product
Serviceability messages with status codes, severities and routes to
streams and rotated log files; XPG message catalogs; a printf engine;
stanza configuration files; UTC time; UUIDs.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzar-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${ZAR_DEB_EXACT}, libstdc++-12-dev | libstdc++-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION "libzar: headers, static library, CMake package, pkg-config file
What programs that use libzar are built with: find_package(zar) gives
zar::zar and zar::zar_static; pkg-config --cflags --libs zar.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zar-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${ZAR_DEB_EXACT}, ${ZAR_DEB_RUNTIME_DEPENDS}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "bash-completion")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "libzar administration tool: zar
Reads, merges, filters and follows the library's log files (zar log show),
shows and checks routes, prints message texts, edits stanza files, and
prints times and UUIDs.")
include(CPack)
