"""korvane Bake: Normal, Opacity and mesh maps baked by a resident `korvane serve`."""

bl_info = {
    "name": "korvane Bake",
    "author": "korvane",
    "version": (0, 4, 0),
    "blender": (3, 4, 0),
    "location": "3D Viewport > Sidebar > korvane",
    "description": "Bakes tangent-space Normal, Opacity and mesh maps (AO, curvature, ...) "
                   "from a high mesh onto a low mesh's UV layout with korvane",
    "category": "Render",
}

import bpy

from . import operator, panel, preferences, properties, service_client

_classes = (
    preferences.KorvanePreferences,
    properties.KorvaneSettings,
    operator.KORVANE_OT_bake,
    panel.KORVANE_PT_bake,
)


def register():
    for cls in _classes:
        bpy.utils.register_class(cls)
    bpy.types.Scene.korvane = bpy.props.PointerProperty(type=properties.KorvaneSettings)


def unregister():
    # A disabled add-on leaves no service behind.
    service_client.stop_shared_service()
    del bpy.types.Scene.korvane
    for cls in reversed(_classes):
        bpy.utils.unregister_class(cls)
