#!/usr/bin/env bash
# Builds the programs in release mode and runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --workflow --preset release
echo
echo "$ morvane backups"
build/release/bin/morvane backups
echo
echo "$ morvane backups --json"
build/release/bin/morvane backups --json
