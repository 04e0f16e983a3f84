#!/usr/bin/env bash
# Installs the build into a temporary prefix and checks the install tree:
# headers, both libraries (with their SONAME), zar.pc, the CMake package, the
# catalogs and the zar tool, which finds the installed catalogs without
# NLSPATH. Then builds the example programs against the installed tree, once
# with pkg-config and once with find_package(zar), and runs them.
. "$(dirname "$0")/lib/common.sh"
build=$1
src=$2
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

# The examples, compiled with the sanitizers of this build (an instrumented
# library needs its runtime in the program).
sanitize=$(sed -n 's/^ZAR_SANITIZE:[A-Z]*=//p' "$build/CMakeCache.txt")
cc=$(sed -n 's/^CMAKE_C_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")
cxx=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")
case "$sanitize" in
  address) sanflags="-fsanitize=address,undefined" ;;
  thread) sanflags="-fsanitize=thread" ;;
  *) sanflags="" ;;
esac

run_examples() {  # dir-with-binaries how
  local n=0
  for exe in "$1"/*; do
    [ -f "$exe" ] && [ -x "$exe" ] || continue
    case "$(basename "$exe")" in *.*) continue ;; esac
    n=$((n + 1))
    if [ "$(basename "$exe")" = errtext_demo ] || [ "$(basename "$exe")" = errtext_static ]; then
      # A static program has no library file to find the catalogs from: it
      # looks in the configured prefix, so a staged tree names its catalogs.
      if [ "$(basename "$exe")" = errtext_static ]; then
        out=$(env -u NLSPATH QVNLZDIR="$prefix/share/zar/nls/msg" LC_ALL=C "$exe") ||
          fail "$2: errtext_static failed: $out"
      else
        out=$(env -u NLSPATH -u QVNLZDIR LC_ALL=C "$exe") || fail "$2: errtext_demo failed: $out"
      fi
      echo "$out" | grep -q "XKJSC0151E   Memory could not be allocated. (kp / wsc)" ||
        fail "$2: errtext_demo printed: $out"
    fi
  done
  [ $n -gt 0 ] || fail "$2: no example was built"
}

# 1. pkg-config.
mkdir -p "$tmp/pc"
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
cflags=$(pkg-config --cflags zar)
libs=$(pkg-config --libs zar)
for f in "$src"/examples/*.c; do
  stem=$(basename "$f" .c)
  # shellcheck disable=SC2086
  "$cc" -std=c99 $sanflags $cflags "$f" -o "$tmp/pc/$stem" $libs -Wl,-rpath,"$prefix/$libdir" ||
    fail "pkg-config build of $stem"
done
for f in "$src"/examples/*.cc; do
  [ -e "$f" ] || continue
  stem=$(basename "$f" .cc)
  # shellcheck disable=SC2086
  "$cxx" -std=c++17 $sanflags $cflags "$f" -o "$tmp/pc/$stem" $libs -Wl,-rpath,"$prefix/$libdir" ||
    fail "pkg-config build of $stem"
done
# A C program and the static library, with what pkg-config --static adds.
static_libs=$(pkg-config --static --libs zar | sed "s|-lzar\b|$prefix/$libdir/libzar.a|")
# shellcheck disable=SC2086
"$cc" -std=c99 $sanflags $cflags "$src/examples/errtext_demo.c" -o "$tmp/pc/errtext_static" \
  $static_libs || fail "pkg-config --static build of a C program"
run_examples "$tmp/pc" pkg-config

# 2. find_package(zar).
cmake -S "$src/examples" -B "$tmp/cm" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_C_FLAGS="$sanflags" -DCMAKE_CXX_FLAGS="$sanflags" \
  -DCMAKE_EXE_LINKER_FLAGS="$sanflags" >/dev/null || fail "configure with find_package"
cmake --build "$tmp/cm" -j 2 >/dev/null || fail "build with find_package"
run_examples "$tmp/cm" find_package
echo "install: all checks passed"
