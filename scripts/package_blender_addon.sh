#!/usr/bin/env bash
# Packs the Blender add-on into a zip that Blender's Preferences > Add-ons >
# Install accepts: the package folder at the top of the archive, without
# Python's caches. Usage: scripts/package_blender_addon.sh [output.zip]
# (default: build/korvane_bake.zip).
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
output="$(realpath -m "${1:-$root/build/korvane_bake.zip}")"
mkdir -p "$(dirname "$output")"
rm -f "$output"

python3 - "$root/clients/blender" "$output" <<'PY'
import os
import sys
import zipfile

source, output = sys.argv[1], sys.argv[2]
with zipfile.ZipFile(output, "w", zipfile.ZIP_DEFLATED) as archive:
    for folder, dirs, files in os.walk(os.path.join(source, "korvane_bake")):
        dirs[:] = sorted(d for d in dirs if d != "__pycache__")
        for name in sorted(files):
            if name.endswith(".py"):
                path = os.path.join(folder, name)
                archive.write(path, os.path.relpath(path, source))
PY
echo "$output"
