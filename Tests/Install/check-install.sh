#!/usr/bin/env bash
# Installs the build in $1 (sources in $2) as a package would, under a temporary root with the
# prefix /usr, checks what lands there, and builds a small program against the installed core
# with pkg-config and with find_package. $3 holds compiler flags the program needs to link with
# this build's libraries (the sanitizers').
set -euo pipefail
build=$(realpath "$1") source=$(realpath "$2") flags=${3:-}
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
fail() {
    echo "check-install: $*" >&2
    exit 1
}

DESTDIR=$root/stage cmake --install "$build" --prefix /usr >"$root/install.log" || {
    cat "$root/install.log" >&2
    fail "cmake --install failed"
}
prefix=$root/stage/usr
(cd "$root/stage" && find . -mindepth 1 -maxdepth 1) | grep -vx './usr' && fail "files outside the prefix /usr"
libdir=$(dirname "$(find "$prefix" -name libmorvane-core.a)")

expected=(
    bin/morvane bin/MorvaneHelper bin/lzfse
    lib/systemd/user/morvane-snapshot.service lib/systemd/user/morvane-snapshot.timer
    share/man/man1/morvane.1.gz share/man/man1/MorvaneHelper.1.gz share/man/man1/lzfse.1.gz
    share/bash-completion/completions/morvane share/zsh/vendor-completions/_morvane
    share/fish/vendor_completions.d/morvane.fish
    share/applications/com.quillfen.morvane.TimeMachineHelper.desktop
    share/icons/hicolor/scalable/apps/com.quillfen.morvane.TimeMachineHelper.svg
    share/doc/morvane/copyright share/doc/morvane/changelog.gz
    include/morvane/MorvaneCore/Shared/Compression.h include/morvane/Lzfse/Lzfse.h
    include/morvane/MorvanePlatform/EventKit.h
)
for file in "${expected[@]}"; do
    [ -f "$prefix/$file" ] || fail "$file isn't installed"
done
for file in libmorvane-core.a libmorvane-platform.a libmorvane-lzfse.a pkgconfig/morvane-core.pc \
    cmake/MorvaneCore/MorvaneCoreConfig.cmake cmake/MorvaneCore/MorvaneCoreConfigVersion.cmake; do
    [ -f "$libdir/$file" ] || fail "$file isn't installed in $libdir"
done
grep -qx 'ExecStart=/usr/bin/morvane snapshot --quiet' "$prefix/lib/systemd/user/morvane-snapshot.service" ||
    fail "the service doesn't run the installed program"

# Nothing of the tests, and no text that names the build or source tree (the archives' debugging
# sections of a debug build may; text files may not).
(cd "$prefix" && find .) | grep -E -i 'test|fixture|generate-calendar|derive-calendar' && fail "test files are installed"
grep -rlI -F -e "$build" -e "$source" "$prefix" && fail "installed text names the build"

cd "$root"
# shellcheck disable=SC2046,SC2086
PKG_CONFIG_PATH=$libdir/pkgconfig c++ -std=c++20 $flags "$source/Tests/Install/consumer/main.cpp" \
    $(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs morvane-core) -o viaPkgConfig ||
    fail "the program doesn't build with pkg-config"
./viaPkgConfig || fail "the program built with pkg-config doesn't run"

cmake -S "$source/Tests/Install/consumer" -B consumer -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >consumer.log 2>&1 &&
    cmake --build consumer >>consumer.log 2>&1 || {
    cat consumer.log >&2
    fail "the program doesn't build with find_package(MorvaneCore)"
}
./consumer/viaCMake || fail "the program built with find_package doesn't run"
echo "check-install: installed tree and both consumer builds are fine"
