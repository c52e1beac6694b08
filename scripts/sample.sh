#!/usr/bin/env bash
# Sets everything up and runs korvane on the bundled sample data.
set -euo pipefail

cd "$(dirname "$0")/.."
scripts/setup.sh normal

./build/korvane --version
./build/korvane --help
