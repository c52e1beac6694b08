"""The bake panel in the 3D view's sidebar."""

import bpy

from . import properties


# Labels the narrow sidebar would cut; the others keep the property's name.
_SHORT_LABELS = {"ao": "AO"}


class KORVANE_PT_bake(bpy.types.Panel):
    bl_label = "korvane Bake"
    bl_space_type = 'VIEW_3D'
    bl_region_type = 'UI'
    bl_category = "korvane"

    def draw(self, context):
        settings = context.scene.korvane
        layout = self.layout
        layout.use_property_split = True
        # The sidebar is narrow: no animation dots, short labels.
        layout.use_property_decorate = False
        layout.prop(settings, "low_object")
        layout.prop(settings, "high_object")
        row = layout.row()
        row.active = settings.high_object is None
        row.prop(settings, "high_collection", text="Collection")
        layout.prop(settings, "size")
        layout.prop(settings, "aa", text="AA")
        layout.prop(settings, "front")
        layout.prop(settings, "rear")
        layout.prop(settings, "normal_format", text="Format")
        column = layout.column(heading="Maps")
        column.prop(settings, "bake_normal")
        column.prop(settings, "bake_opacity")
        column = layout.column(heading="Mesh Maps")
        for name in properties.MESH_MAPS:
            label = {"text": _SHORT_LABELS[name]} if name in _SHORT_LABELS else {}
            column.prop(settings, "bake_" + name, **label)
        row = layout.row()
        row.active = settings.bake_id
        row.prop(settings, "id_source")
        layout.prop(settings, "output_dir")
        layout.operator("korvane.bake", icon='RENDER_STILL')
