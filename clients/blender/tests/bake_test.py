"""Headless test of the korvane Bake add-on.

Run by CTest as:
  blender -b --factory-startup --python-exit-code 1 --python bake_test.py -- \
      <korvane binary> <examples folder> <scratch folder>

Bakes the sample pair through `korvane.bake` and checks the maps against the
command-line bake of the same OBJ files, the mesh reuse by hash, a cancelled
bake and a wrong binary path; then the mesh maps (AO under an occluding plane,
World Normal) against `korvane meshmaps` and a cancelled mesh-maps job. Any
failed check raises, which makes Blender exit with status 1.
"""

import os
import subprocess
import sys
import time

import addon_utils
import bpy
import numpy as np

ADDON_FOLDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), os.pardir)
SIZE = 256
AA = "4"
MAX_MEAN_DEGREES = 0.05
WAIT_SECONDS = 120.0
# Blender's custom normals differ from the file's by about 1e-4 and tilt each
# AO ray by as much: a ray grazing the occluder's edge may then flip between
# hit and miss, moving its texel by 1 / (64 rays x 16 sub-samples) ~ 0.001.
# Measured: mean 8e-6, at most 4 flips in a texel; a wrong distance or ray
# count moves the mean by far more.
MAX_AO_MEAN_DIFFERENCE = 1e-4
MAX_AO_DIFFERENCE = 0.01
# A plane under the sample sphere, so that AO varies from about 0.16 to 1.
OCCLUDER_OBJ = """o occluder
v -1.5 -1.5 -1.25
v 1.5 -1.5 -1.25
v 1.5 1.5 -1.25
v -1.5 1.5 -1.25
vn 0 0 1
f 1//1 2//1 3//1
f 1//1 3//1 4//1
"""


def arguments():
    args = sys.argv[sys.argv.index("--") + 1:]
    if len(args) != 3:
        raise SystemExit("usage: ... -- <korvane binary> <examples folder> <scratch folder>")
    return args


def check(condition, message):
    if not condition:
        raise AssertionError(message)


def enable_addon(binary):
    sys.path.insert(0, os.path.abspath(ADDON_FOLDER))
    addon_utils.enable("korvane_bake", default_set=True)
    bpy.context.preferences.addons["korvane_bake"].preferences.binary_path = binary


def import_sample(examples):
    """The sample pair with the file's own axes, so both bakes see one mesh."""
    bpy.ops.object.select_all(action='SELECT')
    bpy.ops.object.delete()
    for name in ("sphere_low", "sphere_high"):
        bpy.ops.wm.obj_import(filepath=os.path.join(examples, name + ".obj"),
                              forward_axis='Y', up_axis='Z')
    settings = bpy.context.scene.korvane
    settings.low_object = bpy.data.objects["sphere_low"]
    settings.high_object = bpy.data.objects["sphere_high"]
    settings.size = SIZE
    settings.aa = AA
    settings.bake_normal = True
    settings.bake_opacity = True


def fresh_folder(scratch, name):
    folder = os.path.join(scratch, name)
    os.makedirs(folder, exist_ok=True)
    for entry in os.listdir(folder):
        os.remove(os.path.join(folder, entry))
    return folder


def command_line_bake(binary, examples, folder):
    normal = os.path.join(folder, "normal.exr")
    opacity = os.path.join(folder, "opacity.exr")
    subprocess.run([binary, "--low", os.path.join(examples, "sphere_low.obj"),
                    "--high", os.path.join(examples, "sphere_high.obj"), "--size", str(SIZE),
                    "--aa", AA, "--out-normal", normal, "--out-opacity", opacity],
                   check=True, stdout=subprocess.DEVNULL, timeout=WAIT_SECONDS)
    return normal, opacity


def pixels(path):
    """RGBA floats of an image file, rows bottom-up as Blender keeps them."""
    image = bpy.data.images.load(path)
    values = np.empty(len(image.pixels), np.float32)
    image.pixels.foreach_get(values)
    shape = (image.size[1], image.size[0], 4)
    bpy.data.images.remove(image)
    return values.reshape(shape)


def tangent_vectors(rgba):
    vectors = rgba[..., :3].astype(np.float64) * 2.0 - 1.0
    return vectors / np.linalg.norm(vectors, axis=-1, keepdims=True)


def same_coverage(ours, theirs):
    """The texels both opacity maps cover; they must be the same ones."""
    covered = pixels(ours["opacity"])[..., 0] > 0.5
    reference = pixels(theirs["opacity"])[..., 0] > 0.5
    check(covered.any(), "the add-on's bake covers no texel")
    differing = int(np.count_nonzero(covered != reference))
    check(differing == 0, "%d texels differ in coverage from the command line's" % differing)
    return covered


def compare_vectors(name, ours, theirs, covered):
    """Unit vectors within MAX_MEAN_DEGREES of each other on average."""
    cosines = np.sum(tangent_vectors(pixels(ours)) * tangent_vectors(pixels(theirs)), axis=-1)
    angles = np.degrees(np.arccos(np.clip(cosines[covered], -1.0, 1.0)))
    print("korvane bake test: %s mean angle %.5f deg, max %.5f deg over %d texels"
          % (name, angles.mean(), angles.max(), angles.size))
    check(angles.mean() < MAX_MEAN_DEGREES,
          "%s: mean angle %.4f degrees against the command line's bake" % (name, angles.mean()))


def compare_maps(ours, theirs):
    """Same covered texels, normals within MAX_MEAN_DEGREES on average."""
    covered = same_coverage(ours, theirs)
    compare_vectors("normal", ours["normal"], theirs["normal"], covered)


def run_session(on_queued=None):
    """A bake session stepped to its end, as the operator steps it."""
    from korvane_bake import operator as bake_operator
    session = bake_operator.start_session(bpy.context)
    deadline = time.monotonic() + WAIT_SECONDS
    while not session.done:
        check(time.monotonic() < deadline, "the bake did not end in %g s" % WAIT_SECONDS)
        if on_queued and session.bake_queued:
            on_queued(session)
            on_queued = None
        session.step(timeout=0.1)
    return session


def test_wrong_binary(scratch):
    missing = os.path.join(scratch, "no-such-korvane")
    preferences = bpy.context.preferences.addons["korvane_bake"].preferences
    kept = preferences.binary_path
    preferences.binary_path = missing
    try:
        bpy.ops.korvane.bake()
    except RuntimeError as error:
        # Blender turns an operator's error report into this exception.
        check(missing in str(error), "the report does not name the path: %s" % error)
    else:
        raise AssertionError("a missing binary did not fail the bake")
    finally:
        preferences.binary_path = kept


def test_relative_folder_of_unsaved_file():
    settings = bpy.context.scene.korvane
    settings.output_dir = "//maps/"
    try:
        bpy.ops.korvane.bake()
    except RuntimeError as error:
        check("save the file first" in str(error), "unclear report: %s" % error)
    else:
        raise AssertionError("a folder relative to an unsaved file did not fail the bake")


def test_hash_is_stable_for_unchanged_meshes():
    """Two exports of one large smooth mesh hash alike, whatever Blender's threads did."""
    from korvane_bake import mesh_export
    bpy.ops.mesh.primitive_ico_sphere_add(subdivisions=8)
    sphere = bpy.context.active_object
    bpy.ops.object.shade_smooth()
    try:
        hashes = []
        for _ in range(2):
            arrays = mesh_export.export_object(sphere, bpy.context.evaluated_depsgraph_get(), False)
            section = mesh_export.MeshSection([arrays])
            section.close()
            hashes.append(section.hash)
        sphere.data.polygons[0].use_smooth = False
        arrays = mesh_export.export_object(sphere, bpy.context.evaluated_depsgraph_get(), False)
        section = mesh_export.MeshSection([arrays])
        section.close()
    finally:
        bpy.data.objects.remove(sphere)
    check(hashes[0] == hashes[1], "an unchanged mesh hashed differently: %s" % hashes)
    check(section.hash != hashes[0], "a face turned flat did not change the hash")


def test_korvane_failure_reaches_report(scratch):
    """A failed job is reported in korvane's own words."""
    settings = bpy.context.scene.korvane
    settings.output_dir = fresh_folder(scratch, "blocked")
    blocked = os.path.join(settings.output_dir, "sphere_low_normal.exr")
    os.mkdir(blocked)
    try:
        bpy.ops.korvane.bake()
    except RuntimeError as error:
        check("Cannot write EXR %s: a folder with this name exists" % blocked in str(error),
              "the report is not korvane's message: %s" % error)
    else:
        raise AssertionError("a folder in the map's place did not fail the bake")
    finally:
        os.rmdir(blocked)


def test_bake_matches_command_line(binary, examples, scratch):
    settings = bpy.context.scene.korvane
    settings.output_dir = fresh_folder(scratch, "addon")
    result = bpy.ops.korvane.bake()
    check(result == {'FINISHED'}, "the bake returned %s" % result)
    ours = {name: os.path.join(settings.output_dir, "sphere_low_%s.exr" % name)
            for name in ("normal", "opacity")}
    for name, path in ours.items():
        check(os.path.isfile(path), "no %s map at %s" % (name, path))
        check(os.path.basename(path) in bpy.data.images, "%s is not a Blender image" % path)
    normal, opacity = command_line_bake(binary, examples, fresh_folder(scratch, "command_line"))
    reference = {"normal": normal, "opacity": opacity}
    compare_maps(ours, reference)
    return reference


def test_world_transform(scratch, reference):
    """Mesh data moved into object space: the world meshes, so the maps, stay.

    The scale is uniform: Blender re-derives custom normals from the geometry
    under a non-uniform one, so the data would not be the same mesh.
    """
    from mathutils import Matrix
    matrix = (Matrix.Translation((0.3, -0.2, 0.5)) @ Matrix.Rotation(0.7, 4, (1.0, 2.0, 0.5)) @
              Matrix.Diagonal((1.5, 1.5, 1.5, 1.0)))
    settings = bpy.context.scene.korvane
    for obj in (settings.low_object, settings.high_object):
        obj.data.transform(matrix.inverted())
        obj.matrix_world = matrix
    bpy.context.view_layer.update()
    settings.output_dir = fresh_folder(scratch, "transformed")
    try:
        result = bpy.ops.korvane.bake()
    finally:
        for obj in (settings.low_object, settings.high_object):
            obj.data.transform(matrix)
            obj.matrix_world = Matrix.Identity(4)
        bpy.context.view_layer.update()
    check(result == {'FINISHED'}, "the bake returned %s" % result)
    ours = {name: os.path.join(settings.output_dir, "sphere_low_%s.exr" % name)
            for name in ("normal", "opacity")}
    compare_maps(ours, reference)


def test_world_triangles_under_skew_and_mirror():
    """Through any matrix a face's normal stands on its edges and on its front."""
    from korvane_bake import mesh_export
    skew = np.array([[1.0, 0.4, 0.0, 2.0], [0.0, 3.0, 0.2, -1.0],
                     [0.3, 0.0, 0.5, 0.5], [0.0, 0.0, 0.0, 1.0]])
    mirror = np.diag([-1.0, 1.0, 1.0, 1.0]) @ skew
    positions = np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0], [0, 0, 1]], np.float32)
    vertices = np.array([[0, 1, 2], [0, 3, 1], [1, 3, 2]])
    corners = positions[vertices]
    faces = np.cross(corners[:, 1] - corners[:, 0], corners[:, 2] - corners[:, 0])
    normals = np.repeat(faces[:, None, :], 3, axis=1)
    uvs = np.arange(vertices.size * 2, dtype=np.float32).reshape(-1, 3, 2)
    for name, matrix in (("skew", skew), ("mirror", mirror)):
        world, tris, world_normals, world_uvs = mesh_export.world_triangles(
            matrix, positions, vertices, normals, uvs)
        check(np.allclose(world[1], matrix[:3, :3] @ positions[1] + matrix[:3, 3]),
              "%s: positions are not moved by the matrix" % name)
        check(np.allclose(np.linalg.norm(world_normals, axis=-1), 1.0, atol=1e-6),
              "%s: world normals are not unit length" % name)
        edges_a = world[tris[:, 1]] - world[tris[:, 0]]
        edges_b = world[tris[:, 2]] - world[tris[:, 0]]
        for edge in (edges_a, edges_b):
            dots = np.einsum("ij,ij->i", world_normals[:, 0],
                             edge / np.linalg.norm(edge, axis=1)[:, None])
            check(np.abs(dots).max() < 1e-5, "%s: normals lean on their faces: %s" % (name, dots))
        facing = np.einsum("ij,ij->i", np.cross(edges_a, edges_b), world_normals[:, 0])
        check((facing > 0).all(), "%s: faces turned inside out" % name)
        # Each corner keeps its own UV and normal when corners are swapped.
        moved = tris[:, 1] != vertices[:, 1]
        check(np.array_equal(world_uvs[moved][:, 1], uvs[moved][:, 2]),
              "%s: UVs did not follow their corners" % name)


def test_unchanged_meshes_are_not_reloaded():
    from korvane_bake import bake_session
    session = run_session()
    check(session.error is None, "the bake failed: %s" % session.error)
    check(sorted(session.reused) == sorted([bake_session.LOW_KEY, bake_session.HIGH_KEY]),
          "unchanged meshes were sent again: reused %s" % session.reused)
    low = bpy.context.scene.korvane.low_object
    low.location.x += 0.001
    bpy.context.view_layer.update()
    try:
        session = run_session()
    finally:
        low.location.x -= 0.001
        bpy.context.view_layer.update()
    check(session.error is None, "the bake failed: %s" % session.error)
    check(session.reused == [bake_session.HIGH_KEY],
          "a moved low object was not reloaded: reused %s" % session.reused)


def test_cancelled_bake_leaves_no_file(scratch):
    from korvane_bake import bake_session
    settings = bpy.context.scene.korvane
    settings.output_dir = fresh_folder(scratch, "cancelled")
    settings.size = 2048
    try:
        session = run_session(on_queued=lambda s: s.cancel())
    finally:
        settings.size = SIZE
    check(session.error == bake_session.CANCELLED, "the bake ended with %r" % session.error)
    left = os.listdir(settings.output_dir)
    check(not left, "a cancelled bake left %s" % left)


def occluded_high(scratch, examples):
    """The sample's high sphere with OCCLUDER_OBJ, as a collection and as one OBJ file."""
    occluder_path = os.path.join(scratch, "occluder.obj")
    with open(occluder_path, "w") as stream:
        stream.write(OCCLUDER_OBJ)
    bpy.ops.wm.obj_import(filepath=occluder_path, forward_axis='Y', up_axis='Z')
    collection = bpy.data.collections.new("occluded_high")
    for name in ("sphere_high", "occluder"):
        collection.objects.link(bpy.data.objects[name])
    # The command line reads one file: the occluder's indices follow the sphere's.
    with open(os.path.join(examples, "sphere_high.obj")) as stream:
        sphere = stream.read()
    vertices = sum(1 for line in sphere.splitlines() if line.startswith("v "))
    normals = sum(1 for line in sphere.splitlines() if line.startswith("vn "))
    lines = []
    for line in OCCLUDER_OBJ.splitlines():
        if line.startswith("f "):
            corners = [corner.split("//") for corner in line.split()[1:]]
            line = "f " + " ".join("%d//%d" % (int(v) + vertices, int(n) + normals)
                                   for v, n in corners)
        lines.append(line)
    combined = os.path.join(scratch, "occluded_high.obj")
    with open(combined, "w") as stream:
        stream.write(sphere + "\n".join(lines) + "\n")
    return collection, combined


def command_line_meshmaps(binary, examples, high, folder):
    outputs = {name: os.path.join(folder, name + ".exr")
               for name in ("opacity", "ao", "world_normal", "id")}
    command = [binary, "meshmaps", "--low", os.path.join(examples, "sphere_low.obj"),
               "--high", high, "--size", str(SIZE), "--antialias", AA, "--id-source", "object"]
    for name, path in outputs.items():
        command += ["--out-" + name.replace("_", "-"), path]
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL, timeout=WAIT_SECONDS)
    return outputs


def choose_maps(*names):
    from korvane_bake import properties
    settings = bpy.context.scene.korvane
    for name in properties.NORMAL_MAPS + properties.MESH_MAPS:
        setattr(settings, "bake_" + name, name in names)


def test_mesh_maps_match_command_line(binary, examples, scratch):
    """Opacity from the bake job; AO, World Normal and ID from the mesh-maps job after it."""
    settings = bpy.context.scene.korvane
    collection, combined = occluded_high(scratch, examples)
    settings.high_object = None
    settings.high_collection = collection
    settings.output_dir = fresh_folder(scratch, "meshmaps")
    choose_maps("opacity", "ao", "world_normal", "id")
    try:
        result = bpy.ops.korvane.bake()
    finally:
        settings.high_object = bpy.data.objects["sphere_high"]
        settings.high_collection = None
    check(result == {'FINISHED'}, "the bake returned %s" % result)
    ours = {name: os.path.join(settings.output_dir, "sphere_low_%s.exr" % name)
            for name in ("opacity", "ao", "world_normal", "id")}
    check(sorted(os.listdir(settings.output_dir)) == sorted(map(os.path.basename, ours.values())),
          "the folder holds %s" % os.listdir(settings.output_dir))
    for path in ours.values():
        image = bpy.data.images.get(os.path.basename(path))
        check(image is not None, "%s is not a Blender image" % path)
        check(image.colorspace_settings.name == 'Non-Color', "%s is not Non-Color" % path)
    theirs = command_line_meshmaps(binary, examples, combined, fresh_folder(scratch, "cli_mm"))
    covered = same_coverage(ours, theirs)
    ao, reference = (pixels(maps["ao"])[..., 0][covered] for maps in (ours, theirs))
    check(reference.min() < 0.5, "the occluder darkens no texel: AO min %g" % reference.min())
    difference = np.abs(ao.astype(np.float64) - reference)
    print("korvane bake test: AO mean difference %.2e, max %.2e"
          % (difference.mean(), difference.max()))
    check(difference.mean() < MAX_AO_MEAN_DIFFERENCE and difference.max() < MAX_AO_DIFFERENCE,
          "AO differs from the command line's by %.2e on average, %.2e at most"
          % (difference.mean(), difference.max()))
    compare_vectors("world normal", ours["world_normal"], theirs["world_normal"], covered)
    # Colours per object: no normal enters them, so they are equal.
    ids, reference = (pixels(maps["id"])[covered] for maps in (ours, theirs))
    check(np.array_equal(ids, reference), "%d ID texels differ from the command line's"
          % np.count_nonzero((ids != reference).any(axis=-1)))


def test_every_mesh_map_is_written(scratch):
    """Each mesh-map box names a map the service knows, under its own file name."""
    from korvane_bake import properties
    settings = bpy.context.scene.korvane
    settings.output_dir = fresh_folder(scratch, "every_map")
    choose_maps(*properties.MESH_MAPS)
    settings.size = 32
    try:
        session = run_session()
    finally:
        settings.size = SIZE
    check(session.error is None, "the mesh-maps job failed: %s" % session.error)
    expected = sorted("sphere_low_%s.exr" % name for name in properties.MESH_MAPS)
    check(sorted(os.listdir(settings.output_dir)) == expected,
          "the folder holds %s" % sorted(os.listdir(settings.output_dir)))
    loaded = sorted(os.path.basename(image.filepath) for image in session.images)
    check(loaded == expected, "the images loaded are %s" % loaded)
    check(session.progress == 1.0, "the progress ended at %g" % session.progress)


def test_cancelled_meshmaps_leaves_no_file(scratch):
    from korvane_bake import bake_session
    settings = bpy.context.scene.korvane
    settings.output_dir = fresh_folder(scratch, "meshmaps_cancelled")
    choose_maps("ao", "thickness")
    settings.size = 2048
    ops = []

    def cancel(session):
        ops.append(session.job_op)
        session.cancel()
    try:
        session = run_session(on_queued=cancel)
    finally:
        settings.size = SIZE
    check(ops == ["meshmaps"], "the cancelled job was %s" % ops)
    check(session.error == bake_session.CANCELLED, "the job ended with %r" % session.error)
    left = os.listdir(settings.output_dir)
    check(not left, "a cancelled mesh-maps job left %s" % left)


def shared_sections():
    return {name for name in os.listdir("/dev/shm") if name.startswith("psm_")}


def main():
    binary, examples, scratch = arguments()
    os.makedirs(scratch, exist_ok=True)
    sections_before = shared_sections()
    enable_addon(binary)
    import_sample(examples)
    test_wrong_binary(scratch)
    test_relative_folder_of_unsaved_file()
    reference = test_bake_matches_command_line(binary, examples, scratch)
    test_unchanged_meshes_are_not_reloaded()
    test_hash_is_stable_for_unchanged_meshes()
    test_korvane_failure_reaches_report(scratch)
    test_world_transform(scratch, reference)
    test_world_triangles_under_skew_and_mirror()
    test_cancelled_bake_leaves_no_file(scratch)
    test_mesh_maps_match_command_line(binary, examples, scratch)
    test_every_mesh_map_is_written(scratch)
    test_cancelled_meshmaps_leaves_no_file(scratch)
    leaked = shared_sections() - sections_before
    check(not leaked, "shared-memory sections left behind: %s" % sorted(leaked))
    print("korvane bake test: all checks passed")


main()
