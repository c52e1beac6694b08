"""Installs the add-on from its zip as a user would, then enables it.

Run by CTest with BLENDER_USER_SCRIPTS pointing at a scratch folder:
  blender -b --factory-startup --python-exit-code 1 --python install_test.py -- <zip>
"""

import os
import sys

import addon_utils
import bpy


def check(condition, message):
    if not condition:
        raise AssertionError(message)


def main():
    archive = sys.argv[sys.argv.index("--") + 1]
    scripts = os.environ.get("BLENDER_USER_SCRIPTS", "")
    # Installing writes into the user's scripts folder; never into a real one.
    check(scripts and "blender_addon_install" in scripts,
          "BLENDER_USER_SCRIPTS must name the test's scratch folder, not %r" % scripts)
    result = bpy.ops.preferences.addon_install(filepath=archive, overwrite=True)
    check(result == {'FINISHED'}, "installing %s returned %s" % (archive, result))
    addon_utils.enable("korvane_bake", default_set=True)
    installed = sys.modules["korvane_bake"].__file__
    check(os.path.realpath(installed).startswith(os.path.realpath(scripts)),
          "the add-on was loaded from %s, not from the installed copy" % installed)
    check(hasattr(bpy.types, "KORVANE_OT_bake"), "the bake operator is not registered")
    settings = bpy.context.scene.korvane
    check(settings.bake_normal and settings.size == 2048, "scene.korvane lacks its defaults")
    print("korvane install test: installed and enabled from", archive)


main()
