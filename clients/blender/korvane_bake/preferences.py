"""Add-on preferences: where the korvane binary is."""

import bpy


class KorvanePreferences(bpy.types.AddonPreferences):
    bl_idname = __package__

    binary_path: bpy.props.StringProperty(
        name="korvane Binary", subtype='FILE_PATH', default="",
        description="Empty: the KORVANE environment variable, else korvane on PATH")

    def draw(self, _context):
        self.layout.prop(self, "binary_path")


def preference_path(context):
    """The binary path set in the preferences, or "" when none is set."""
    addon = context.preferences.addons.get(__package__)
    if addon is None or not addon.preferences.binary_path:
        return ""
    return bpy.path.abspath(addon.preferences.binary_path)
