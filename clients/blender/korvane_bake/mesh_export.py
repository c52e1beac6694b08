"""Blender objects as the arrays `mesh.load_shm` reads.

Each object becomes world-space positions, triangle indices and per-corner
UVs and normals, exactly what an OBJ export with one `o` per object holds,
so a bake from Blender equals the command-line bake of that OBJ.
"""

import hashlib
import json
import sys

import numpy as np

_had_mp_main = "__mp_main__" in sys.modules
from multiprocessing import shared_memory  # noqa: E402

# multiprocessing aliases __main__ as __mp_main__ for the children it spawns.
# Blender frees the __main__ of a `--python` script when the script ends,
# and the alias left behind crashes Blender at exit. Shared memory spawns
# no children, so the alias is dropped.
if not _had_mp_main:
    sys.modules.pop("__mp_main__", None)


class ExportError(Exception):
    pass


class ObjectArrays:
    """One object's arrays, ready to be copied into a section."""

    def __init__(self, name, positions, indices, uvs, normals, normal_inputs):
        self.name = name
        self.positions = positions  # V x 3 float32
        self.indices = indices  # T x 3 uint32
        self.uvs = uvs  # T x 3 x 2 float32, or None
        self.normals = normals  # T x 3 x 3 float32
        self.normal_inputs = normal_inputs  # what the normals follow from, for the hash

    def arrays(self):
        present = [("positions", self.positions), ("indices", self.indices)]
        if self.uvs is not None:
            present.append(("uvs", self.uvs))
        present.append(("normals", self.normals))
        return present


def _corner_normals(mesh):
    # Blender 4.1 dropped calc_normals_split and keeps corner normals up to
    # date itself; 3.x computes them on request into the loops.
    if hasattr(mesh, "calc_normals_split"):
        mesh.calc_normals_split()
    normals = np.empty(len(mesh.loops) * 3, np.float32)
    if hasattr(mesh, "corner_normals"):
        mesh.corner_normals.foreach_get("vector", normals)
    else:
        mesh.loops.foreach_get("normal", normals)
    return normals.reshape(-1, 3)


# Blender keeps custom normals per corner in a 16-bit encoding, so the
# corners of one smooth fan come back a few thousandths of a degree apart.
# MikkTSpace only welds corners of exactly equal normals, and unwelded
# tangents would turn that noise into a visible seam-like error; corners of
# one vertex closer than this are therefore given their common mean.
FAN_NORMAL_TOLERANCE_DEGREES = 0.1


def _unify_fan_normals(mesh, normals):
    """Each corner's normal becomes the mean of its vertex's nearby corners."""
    vertex = np.empty(len(mesh.loops), np.int32)
    mesh.loops.foreach_get("vertex_index", vertex)
    order = np.argsort(vertex, kind="stable")
    runs = np.flatnonzero(np.r_[True, vertex[order][1:] != vertex[order][:-1]])
    counts = np.diff(np.r_[runs, len(order)])
    run_start = np.repeat(runs, counts)  # per sorted corner: its vertex's first
    run_size = np.repeat(counts, counts)
    # Every ordered pair of corners of one vertex, partners in sorted order so
    # that all corners of a fan add the same normals in the same order.
    first = np.repeat(np.arange(len(order)), run_size)
    offset = np.arange(len(first)) - np.repeat(np.cumsum(run_size) - run_size, run_size)
    second = run_start[first] + offset
    a, b = order[first], order[second]
    close = np.einsum("ij,ij->i", normals[a], normals[b]) > np.cos(
        np.radians(FAN_NORMAL_TOLERANCE_DEGREES))
    sums = np.zeros(normals.shape, np.float64)
    np.add.at(sums, a[close], normals[b[close]].astype(np.float64))
    lengths = np.linalg.norm(sums, axis=1, keepdims=True)
    # A zero normal (a degenerate face) has no fan; _to_world handles it.
    unified = np.where(lengths > 0, sums / np.where(lengths > 0, lengths, 1.0), normals)
    return unified.astype(np.float32)


def _loop_uvs(mesh):
    layer = mesh.uv_layers.active
    if layer is None:
        return None
    uvs = np.empty(len(mesh.loops) * 2, np.float32)
    layer.data.foreach_get("uv", uvs)
    return uvs.reshape(-1, 2)


def _triangles(mesh):
    mesh.calc_loop_triangles()
    count = len(mesh.loop_triangles)
    vertices = np.empty(count * 3, np.int32)
    loops = np.empty(count * 3, np.int32)
    mesh.loop_triangles.foreach_get("vertices", vertices)
    mesh.loop_triangles.foreach_get("loops", loops)
    return vertices.reshape(-1, 3), loops.reshape(-1, 3)


def _to_world(matrix, positions, normals):
    """Positions by the object's matrix, normals by its inverse transpose."""
    m = np.array(matrix, np.float64)
    linear = m[:3, :3]
    world_positions = positions.astype(np.float64) @ linear.T + m[:3, 3]
    world_normals = normals.astype(np.float64) @ np.linalg.inv(linear)
    lengths = np.linalg.norm(world_normals, axis=-1, keepdims=True)
    # A degenerate face has no normal; any unit vector serves, as it covers
    # no surface, and korvane refuses zero-length normals.
    flat = lengths[..., 0] < 1e-30
    world_normals[flat] = (0.0, 0.0, 1.0)
    lengths[flat] = 1.0
    return world_positions.astype(np.float32), (world_normals / lengths).astype(np.float32)


def world_triangles(matrix, positions, vertices, normals, uvs):
    """Triangles in world space, facing where Blender shows them."""
    world_positions, world_normals = _to_world(matrix, positions, normals)
    if np.linalg.det(np.array(matrix)[:3, :3]) < 0:
        # A mirroring matrix turns the faces inside out; swapping two corners
        # turns them back.
        vertices = vertices[:, [0, 2, 1]]
        world_normals = world_normals[:, [0, 2, 1]]
        uvs = uvs[:, [0, 2, 1]] if uvs is not None else None
    return world_positions, vertices, world_normals, uvs


def _normal_inputs(mesh, loop_normals):
    """What decides the corner normals besides the positions, as hashable bytes.

    Blender sums vertex normals on several threads in no fixed order, so the
    normals of an unchanged mesh differ in their last bits from one export to
    the next and would defeat the hash. Without custom normals they follow
    from the positions and the smooth and sharp flags, which are exact; custom
    normals are hashed rounded to a 1/1024 grid, far above that noise.
    """
    if not mesh.has_custom_normals:
        smooth = np.empty(len(mesh.polygons), bool)
        mesh.polygons.foreach_get("use_smooth", smooth)
        sharp = np.empty(len(mesh.edges), bool)
        mesh.edges.foreach_get("use_edge_sharp", sharp)
        # Blender 4.1 replaced auto smooth by a modifier, already evaluated.
        angle = getattr(mesh, "auto_smooth_angle", 0.0) if getattr(
            mesh, "use_auto_smooth", False) else -1.0
        return smooth.tobytes() + sharp.tobytes() + np.float64(angle).tobytes()
    return np.round(loop_normals * 1024.0).astype(np.int16).tobytes()


def export_object(obj, depsgraph, with_uvs):
    """The evaluated object (modifiers applied) in world space."""
    evaluated = obj.evaluated_get(depsgraph)
    mesh = evaluated.to_mesh()
    try:
        positions = np.empty(len(mesh.vertices) * 3, np.float32)
        mesh.vertices.foreach_get("co", positions)
        loop_normals = _corner_normals(mesh)
        if with_uvs:
            # Only the low mesh has tangents to weld.
            loop_normals = _unify_fan_normals(mesh, loop_normals)
        normal_inputs = _normal_inputs(mesh, loop_normals)
        vertices, loops = _triangles(mesh)
        loop_uvs = _loop_uvs(mesh) if with_uvs else None
    finally:
        evaluated.to_mesh_clear()
    if with_uvs and loop_uvs is None:
        raise ExportError("the object '%s' has no UV map" % obj.name)
    uvs = loop_uvs[loops] if loop_uvs is not None else None
    world_positions, vertices, world_normals, uvs = world_triangles(
        obj.matrix_world, positions.reshape(-1, 3), vertices, loop_normals[loops], uvs)
    return ObjectArrays(obj.name, world_positions, vertices.astype(np.uint32), uvs, world_normals,
                        normal_inputs)


class MeshSection:
    """Objects packed into one shared-memory section, with their layout.

    The section must live until the service has answered the load; `close`
    unlinks it afterwards.
    """

    def __init__(self, objects):
        self.objects = []
        offset = 0
        placed = []
        for item in objects:
            entry = {"name": item.name, "vertices": len(item.positions),
                     "triangles": len(item.indices)}
            for field, array in item.arrays():
                array = np.ascontiguousarray(array)
                entry[field] = offset
                placed.append((offset, array))
                # Every array holds 4-byte elements, so offsets stay aligned.
                offset += array.nbytes
            self.objects.append(entry)
        self.size = max(offset, 4)
        self.hash = _content_hash(self.objects, objects)
        self._memory = shared_memory.SharedMemory(create=True, size=self.size)
        for start, array in placed:
            self._memory.buf[start:start + array.nbytes] = array.view(np.uint8).reshape(-1)

    @property
    def name(self):
        return self._memory.name.lstrip("/")

    def close(self):
        if self._memory is not None:
            self._memory.close()
            self._memory.unlink()
            self._memory = None


def _content_hash(layout, objects):
    """A digest of names, layout and contents: equal digests mean equal meshes."""
    digest = hashlib.blake2b(digest_size=20)
    digest.update(json.dumps(layout, sort_keys=True).encode("utf-8"))
    for item in objects:
        for field, array in item.arrays():
            if field != "normals":
                digest.update(np.ascontiguousarray(array).tobytes())
        digest.update(item.normal_inputs)
    return digest.hexdigest()
