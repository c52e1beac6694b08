"""The bake settings, kept on the scene as `scene.korvane`."""

import bpy


def _is_mesh(_settings, obj):
    return obj.type == 'MESH'


class KorvaneSettings(bpy.types.PropertyGroup):
    low_object: bpy.props.PointerProperty(
        name="Low", type=bpy.types.Object, poll=_is_mesh,
        description="The mesh whose UV layout receives the maps")
    high_object: bpy.props.PointerProperty(
        name="High", type=bpy.types.Object, poll=_is_mesh,
        description="The detailed mesh to bake from")
    high_collection: bpy.props.PointerProperty(
        name="High Collection", type=bpy.types.Collection,
        description="Bake from every mesh of this collection (used when no high object is set)")
    size: bpy.props.IntProperty(
        name="Size", default=2048, min=1, max=32768,
        description="Width and height of the maps in texels")
    aa: bpy.props.EnumProperty(
        name="Anti-aliasing", default='4',
        items=[('1', "1x", ""), ('2', "2x", ""), ('4', "4x", ""), ('8', "8x", "")],
        description="Sub-samples per texel side")
    front: bpy.props.FloatProperty(
        name="Front", default=0.01, min=0.0, max=1e6, precision=4,
        description="Ray distance in front of the low surface, relative to the low mesh's size")
    rear: bpy.props.FloatProperty(
        name="Rear", default=0.01, min=0.0, max=1e6, precision=4,
        description="Ray distance behind the low surface, relative to the low mesh's size")
    normal_format: bpy.props.EnumProperty(
        name="Normal Format", default='opengl',
        items=[('opengl', "OpenGL", "Green up (Blender's own convention)"),
               ('directx', "DirectX", "Green down")])
    output_dir: bpy.props.StringProperty(
        name="Output", subtype='DIR_PATH', default="//",
        description="Folder the maps are written to, as <low object>_<map>.exr")
    bake_normal: bpy.props.BoolProperty(name="Normal", default=True)
    bake_opacity: bpy.props.BoolProperty(name="Opacity", default=False)
    bake_ao: bpy.props.BoolProperty(name="Ambient Occlusion", default=False)
    bake_thickness: bpy.props.BoolProperty(name="Thickness", default=False)
    bake_curvature: bpy.props.BoolProperty(name="Curvature", default=False)
    bake_height: bpy.props.BoolProperty(name="Height", default=False)
    bake_world_normal: bpy.props.BoolProperty(name="World Normal", default=False)
    bake_position: bpy.props.BoolProperty(name="Position", default=False)
    bake_id: bpy.props.BoolProperty(name="ID", default=False)
    bake_bent_normals: bpy.props.BoolProperty(name="Bent Normals", default=False)
    # Blender's meshes reach korvane without materials or vertex colours, by
    # which every texel would get one colour: objects and islands they hold.
    id_source: bpy.props.EnumProperty(
        name="ID Source", default='object',
        items=[('object', "Object", "One colour per high object"),
               ('mesh-island', "Mesh Island", "One colour per connected part")],
        description="What the ID map colours")


# The maps of the Normal bake and of the mesh-maps job, by their service
# names; each has a `bake_<name>` property. Opacity stays with the Normal bake:
# it is the coverage of the rays that bake casts anyway.
NORMAL_MAPS = ("normal", "opacity")
MESH_MAPS = ("ao", "thickness", "curvature", "height", "world_normal", "position", "id",
             "bent_normals")


def bake_settings(settings):
    """The service's settings list for these properties."""
    return ["--size", str(settings.size), "--aa", settings.aa,
            "--front", _distance(settings.front), "--rear", _distance(settings.rear),
            "--normal-format", settings.normal_format]


def meshmaps_settings(settings):
    """The mesh-maps job's settings list: the same primary rays as the bake."""
    # The normal format also gives Bent Normals the Normal map's convention.
    return ["--size", str(settings.size), "--antialias", settings.aa,
            "--front", _distance(settings.front), "--rear", _distance(settings.rear),
            "--normal-format", settings.normal_format, "--id-source", settings.id_source]


def chosen(settings, names):
    return [name for name in names if getattr(settings, "bake_" + name)]


def _distance(value):
    # Blender keeps floats in single precision; six digits give back what
    # the user typed (0.01, not 0.009999999776).
    return format(value, ".6g")
