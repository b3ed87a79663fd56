#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test and benchmark.
# Idempotent: when everything is present already it touches nothing and needs no network.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config git
    clang clang-format clang-tidy libclang-rt-14-dev
    libsqlite3-dev sqlite3 libicu-dev libssl-dev nlohmann-json3-dev libplist-dev libical-dev
    libcli11-dev qt6-base-dev qt6-qpa-plugins fonts-dejavu-core
    libgtest-dev libgmock-dev libbenchmark-dev hyperfine time
    libcurl4-openssl-dev libxml2-dev radicale chromium
    lintian desktop-file-utils zsh fish groff man-db
)

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    echo "setup: all ${#packages[@]} packages are installed"
    exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
    echo "setup: missing packages: ${missing[*]}" >&2
    echo "setup: run this script as root (or with sudo) to install them" >&2
    exit 1
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update
apt-get install -y --no-install-recommends "${missing[@]}"
