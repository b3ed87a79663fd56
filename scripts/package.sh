#!/usr/bin/env bash
# Builds the Debian package (build/package/morvane_{version}_amd64.deb) from an optimised build
# installed under /usr, and checks it: lintian finds no error; unpacked into a temporary root, it
# holds nothing outside /usr, nothing of the tests and no path of this machine's build; and the
# unpacked program runs.
set -euo pipefail
cd "$(dirname "$0")/.."
fail() {
    echo "package: $*" >&2
    exit 1
}

# Debian's hardening flags, and source paths written relative to the tree. The configure step
# sets them each time, so that a build folder made before takes them too.
cmake --preset package -DCMAKE_C_FLAGS="$(dpkg-buildflags --get CPPFLAGS) $(dpkg-buildflags --get CFLAGS)" \
    -DCMAKE_CXX_FLAGS="$(dpkg-buildflags --get CPPFLAGS) $(dpkg-buildflags --get CXXFLAGS)" \
    -DCMAKE_EXE_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS)"
cmake --build --preset package
cpack --preset package
version=$(sed -n 's/^project(Morvane VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
deb=build/package/morvane_${version}_amd64.deb
[ -f "$deb" ] || fail "cpack made no $deb"
dpkg-deb --field "$deb" Package Version Architecture Depends Section Maintainer

echo "package: lintian"
lintian --fail-on error --info "$deb"

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
dpkg -x "$deb" "$root"
contents=$(cd "$root" && find . -mindepth 1 | sort)
echo "$contents" | grep -v -e '^\./usr$' -e '^\./usr/' && fail "files outside /usr"
echo "$contents" | grep -E -i 'test|fixture|generate-calendar|derive-calendar' && fail "test files in the package"
grep -r -l -F -e "$PWD" "$root" && fail "files naming the build tree $PWD"
echo "package: $(echo "$contents" | wc -l) entries, all under /usr"

"$root/usr/bin/morvane" --version
"$root/usr/bin/morvane" --help >/dev/null
echo "package: $deb is fine"
