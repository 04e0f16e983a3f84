#!/usr/bin/env bash
# Installs the build into a temporary prefix and checks the install tree:
# headers, both libraries (with their SONAME), zar.pc, the CMake package, the
# catalogs and the zar tool, which finds the installed catalogs without
# NLSPATH. The examples built against an installed tree (pkg-config,
# find_package, the static library) are checked by scripts/packages.
. "$(dirname "$0")/lib/common.sh"
build=$1
prefix=$tmp/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:[A-Z]*=//p' "$build/CMakeCache.txt")
libdir=${libdir:-lib}
for f in include/zar/zar.h include/zar/msg.h include/zar/nls.h include/zar/status.h \
         "$libdir/libzar.a" "$libdir/pkgconfig/zar.pc" "$libdir/cmake/zar/zarConfig.cmake" \
         "$libdir/cmake/zar/zarTargets.cmake" share/zar/nls/msg/C/kpwsc.cat \
         share/zar/nls/msg/C/kpbbas.cat share/zar/nls/msg/de_DE.ISO-8859-1/kpwsc.cat \
         share/zar/nls/msg/de_DE.UTF-8/kpwsd.cat bin/zar; do
  [ -e "$prefix/$f" ] || fail "not installed: $f"
done
soname=$(objdump -p "$prefix/$libdir/libzar.so" | awk '/SONAME/{print $2}')
[ "$soname" = libzar.so.1 ] || fail "SONAME is '$soname'"
[ -e "$prefix/$libdir/$soname" ] || fail "$soname not installed"

# The installed tool finds the installed catalogs on its own.
got=$(env -u NLSPATH -u QVNLZDIR LC_ALL=C "$prefix/bin/zar" errtext 0x10652209)
[ "$got" = "0x10652209: The operation completed successfully. (dce / bas)" ] ||
  fail "installed zar errtext: $got"

echo "install: all checks passed"
