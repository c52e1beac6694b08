#!/usr/bin/env python3
"""Writes the small seed inputs of fuzz/corpus/<target>/ (deterministic).

Run from anywhere: python3 fuzz/make_corpus.py. The files are committed; this
script only says how they were made.
"""
import base64
import json
import os
import struct
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))


def put(target, name, data):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    if isinstance(data, str):
        data = data.encode()
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


OBJS = {
    "triangle.obj": "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n",
    "full.obj": (
        "# a quad and a pentagon\nmtllib a.mtl\no Body\nv 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n"
        "v 0.5 1.5 0\nvt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\nvn 0 0 1\nusemtl skin\n"
        "f 1/1/1 2/2/1 3/3/1 4/4/1\ng part\nusemtl cloth\nf 1//1 2//1 3//1 5//1 4//1\n"),
    "relative.obj": "v 0 0 0 1 0 0\nv 1 0 0 0 1 0\nv 0 1 0 0 0 1\nvt 0.5 0.5 0\nf -3/-1 -2/-1 -1/-1\nl 1 2\n",
    "groups.obj": "g a\nv 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\no b\ng a\nf +1 +2 +3 # end\n",
}

def kvm(flags, positions, uvs, normals, tris, objects, materials=None, blocks=None):
    out = b"KVMESH1\0" + struct.pack("<II5Q", 1, flags, len(positions), len(uvs), len(normals),
                                     len(tris), len(objects))
    for p in positions:
        out += struct.pack("<3f", *p)
    for uv in uvs:
        out += struct.pack("<2d" if flags & 1 else "<2f", *uv)
    for n in normals:
        out += struct.pack("<3f", *n)
    for corners, obj in tris:
        for c in corners:
            out += struct.pack("<Iii", *c)
        out += struct.pack("<I", obj)
    for name in objects:
        out += struct.pack("<I", len(name)) + name.encode()
    if flags & 4:
        names, per_tri = materials
        out += struct.pack("<Q", len(names))
        for name in names:
            out += struct.pack("<I", len(name)) + name.encode()
        out += b"".join(struct.pack("<I", m) for m in per_tri)
    if flags & 8:
        names, per_obj = blocks
        out += struct.pack("<Q", len(names))
        for name in names:
            out += struct.pack("<I", len(name)) + name.encode()
        out += b"".join(struct.pack("<I", b) for b in per_obj)
    return out

TRI = [((0, 0, 0), (1, 1, 0), (2, 2, 0))]
KVMS = {
    "plain.kvm": kvm(0, [(0, 0, 0), (1, 0, 0), (0, 1, 0)], [(0, 0), (1, 0), (0, 1)],
                     [(0, 0, 2)], [(TRI[0], 0)], ["a"]),
    "double_as_is.kvm": kvm(3, [(0, 0, 0), (1, 0, 0), (0, 1, 0)], [(0, 0), (1, 0), (0, 1)],
                            [(0, 0, 1)], [(((0, -1, -1), (1, -1, -1), (2, -1, -1)), 0)], ["a"]),
    "tables.kvm": kvm(15, [(0, 0, 0), (1, 0, 0), (0, 1, 0)], [(0, 0), (1, 0), (0, 1)],
                      [(0, 0, 1)], [(TRI[0], 0), (TRI[0], 1)], ["a", "b"],
                      (["m"], [0, 0]), (["blk"], [0, 0])),
}


def gltf_triangle(extra_nodes=False, strip=False, sparse=False):
    positions = struct.pack("<9f", 0, 0, 0, 1, 0, 0, 0, 1, 0)
    normals = struct.pack("<9f", 0, 0, 1, 0, 0, 1, 0, 0, 1)
    uvs = struct.pack("<6f", 0, 0, 1, 0, 0, 1)
    indices = struct.pack("<3H", 0, 1, 2) + b"\0\0"
    sparse_bytes = struct.pack("<H", 1) + b"\0\0" + struct.pack("<3f", 2, 0, 0)
    data = positions + normals + uvs + indices + sparse_bytes
    doc = {
        "asset": {"version": "2.0"},
        "buffers": [{"byteLength": len(data)}],
        "bufferViews": [
            {"buffer": 0, "byteOffset": 0, "byteLength": 36},
            {"buffer": 0, "byteOffset": 36, "byteLength": 36},
            {"buffer": 0, "byteOffset": 72, "byteLength": 24},
            {"buffer": 0, "byteOffset": 96, "byteLength": 6},
            {"buffer": 0, "byteOffset": 104, "byteLength": 16},
        ],
        "accessors": [
            {"bufferView": 0, "componentType": 5126, "count": 3, "type": "VEC3"},
            {"bufferView": 1, "componentType": 5126, "count": 3, "type": "VEC3"},
            {"bufferView": 2, "componentType": 5126, "count": 3, "type": "VEC2"},
            {"bufferView": 3, "componentType": 5123, "count": 3, "type": "SCALAR"},
        ],
        "materials": [{"name": "skin"}],
        "meshes": [{"name": "tri", "primitives": [{
            "attributes": {"POSITION": 0, "NORMAL": 1, "TEXCOORD_0": 2},
            "indices": 3, "material": 0, "mode": 5 if strip else 4}]}],
        "nodes": [{"name": "a", "mesh": 0}],
        "scenes": [{"nodes": [0]}],
        "scene": 0,
    }
    if sparse:
        doc["accessors"][0]["sparse"] = {
            "count": 1, "indices": {"bufferView": 4, "componentType": 5123},
            "values": {"bufferView": 4, "byteOffset": 4}}
    if extra_nodes:
        doc["nodes"] = [
            {"name": "root", "children": [1, 2], "translation": [1, 2, 3]},
            {"name": "a", "mesh": 0, "scale": [-1, 1, 1]},
            {"name": "a", "mesh": 0, "rotation": [0, 0, 0.7071, 0.7071],
             "extras": {"k": [1, {"x": 2}]}},
        ]
    return doc, data


def gltf_text(doc, data):
    doc = json.loads(json.dumps(doc))
    doc["buffers"][0]["uri"] = ("data:application/octet-stream;base64," +
                                base64.b64encode(data).decode())
    return json.dumps(doc, separators=(",", ":"))


def glb(doc, data):
    text = json.dumps(doc, separators=(",", ":")).encode()
    text += b" " * (-len(text) % 4)
    data += b"\0" * (-len(data) % 4)
    chunks = struct.pack("<I4s", len(text), b"JSON") + text + struct.pack("<I4s", len(data), b"BIN\0") + data
    return struct.pack("<4sII", b"glTF", 2, 12 + len(chunks)) + chunks

GLTFS = {
    "triangle.gltf": gltf_text(*gltf_triangle()),
    "nodes.gltf": gltf_text(*gltf_triangle(extra_nodes=True)),
    "strip_sparse.gltf": gltf_text(*gltf_triangle(strip=True, sparse=True)),
}
GLBS = {
    "triangle.glb": glb(*gltf_triangle()),
    "nodes.glb": glb(*gltf_triangle(extra_nodes=True)),
    "strip_sparse.glb": glb(*gltf_triangle(strip=True, sparse=True)),
}

FBX_ASCII = """; FBX 7.4.0 project file
FBXHeaderExtension:  {
\tFBXHeaderVersion: 1003
\tFBXVersion: 7400
}
Objects:  {
\tGeometry: 1000, "Geometry::quad", "Mesh" {
\t\tVertices: *12 {
\t\t\ta: 0,0,0,1,0,0,1,1,0,0,1,0
\t\t}
\t\tPolygonVertexIndex: *4 {
\t\t\ta: 0,1,2,-4
\t\t}
\t\tGeometryVersion: 124
\t\tLayerElementNormal: 0 {
\t\t\tVersion: 101
\t\t\tMappingInformationType: "ByPolygonVertex"
\t\t\tReferenceInformationType: "Direct"
\t\t\tNormals: *12 {
\t\t\t\ta: 0,0,1,0,0,1,0,0,1,0,0,1
\t\t\t}
\t\t}
\t\tLayerElementUV: 0 {
\t\t\tVersion: 101
\t\t\tName: "map1"
\t\t\tMappingInformationType: "ByPolygonVertex"
\t\t\tReferenceInformationType: "IndexToDirect"
\t\t\tUV: *8 {
\t\t\t\ta: 0,0,1,0,1,1,0,1
\t\t\t}
\t\t\tUVIndex: *4 {
\t\t\t\ta: 0,1,2,3
\t\t\t}
\t\t}
\t\tLayer: 0 {
\t\t\tVersion: 100
\t\t\tLayerElement:  {
\t\t\t\tType: "LayerElementNormal"
\t\t\t\tTypedIndex: 0
\t\t\t}
\t\t\tLayerElement:  {
\t\t\t\tType: "LayerElementUV"
\t\t\t\tTypedIndex: 0
\t\t\t}
\t\t}
\t}
\tModel: 2000, "Model::body", "Mesh" {
\t\tVersion: 232
\t\tProperties70:  {
\t\t\tP: "Lcl Translation", "Lcl Translation", "", "A",1,2,3
\t\t}
\t}
\tMaterial: 3000, "Material::skin", "" {
\t\tVersion: 102
\t}
}
Connections:  {
\tC: "OO",2000,0
\tC: "OO",1000,2000
\tC: "OO",3000,2000
}
"""


def fbx_binary(vertices=None):
    """A binary FBX 7400 file with the same quad, written record by record;
    `vertices`, when given, is the encoded property of the Vertices record."""
    def prop(kind, value):
        if kind == "L":
            return b"L" + struct.pack("<q", value)
        if kind == "I":
            return b"I" + struct.pack("<i", value)
        if kind == "S":
            return b"S" + struct.pack("<I", len(value)) + value
        if kind == "d":
            return b"d" + struct.pack("<Iii", len(value), 0, 8 * len(value)) + b"".join(
                struct.pack("<d", v) for v in value)
        if kind == "i":
            return b"i" + struct.pack("<Iii", len(value), 0, 4 * len(value)) + b"".join(
                struct.pack("<i", v) for v in value)
        raise ValueError(kind)

    def node(offset, name, props, children):
        body = b"".join(props)
        head_len = 13 + len(name)
        nested = b""
        cursor = offset + head_len + len(body)
        for child in children:
            encoded = child(cursor)
            nested += encoded
            cursor += len(encoded)
        if children:
            nested += b"\0" * 13
        end = offset + head_len + len(body) + len(nested)
        return struct.pack("<IIIB", end, len(props), len(body), len(name)) + name + body + nested

    def n(name, props, children=()):
        return lambda offset: node(offset, name, props, list(children))

    top = [
        n(b"FBXHeaderExtension", [], [n(b"FBXVersion", [prop("I", 7400)])]),
        n(b"Objects", [], [
            n(b"Geometry", [prop("L", 1000), prop("S", b"quad\x00\x01Geometry"), prop("S", b"Mesh")], [
                n(b"Vertices", [vertices or prop("d", [0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0])]),
                n(b"PolygonVertexIndex", [prop("i", [0, 1, 2, -4])]),
                n(b"GeometryVersion", [prop("I", 124)]),
            ]),
            n(b"Model", [prop("L", 2000), prop("S", b"body\x00\x01Model"), prop("S", b"Mesh")],
              [n(b"Version", [prop("I", 232)])]),
        ]),
        n(b"Connections", [], [
            n(b"C", [prop("S", b"OO"), prop("L", 2000), prop("L", 0)]),
            n(b"C", [prop("S", b"OO"), prop("L", 1000), prop("L", 2000)]),
        ]),
    ]
    out = b"Kaydara FBX Binary  \x00\x1a\x00" + struct.pack("<I", 7400)
    for record in top:
        out += record(len(out))
    out += b"\0" * 13
    return out + b"\0" * 160


def png(width, height, colour, depth, rows, palette=None, trns=None):
    def chunk(kind, body):
        return struct.pack(">I", len(body)) + kind + body + struct.pack(">I", zlib.crc32(kind + body))
    raw = b"".join(b"\0" + row for row in rows)
    out = b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, depth, colour, 0, 0, 0))
    if palette:
        out += chunk(b"PLTE", palette)
    if trns:
        out += chunk(b"tRNS", trns)
    return out + chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b"")

PNGS = {
    "grey8.png": png(2, 2, 0, 8, [b"\x00\x80", b"\xff\x10"]),
    "grey1.png": png(3, 1, 0, 1, [b"\xa0"]),
    "rgb16.png": png(1, 2, 2, 16, [b"\x12\x34" * 3, b"\xff\xff" * 3]),
    "rgba8.png": png(2, 1, 6, 8, [b"\x01\x02\x03\x04\x05\x06\x07\x08"]),
    "greyalpha8.png": png(1, 1, 4, 8, [b"\x10\x20"]),
    "palette.png": png(2, 1, 3, 8, [b"\x00\x01"], palette=b"\xff\x00\x00\x00\xff\x00"),
    "palette_alpha.png": png(2, 1, 3, 4, [b"\x01"], palette=b"\xff\x00\x00\x00\xff\x00",
                             trns=b"\x80"),
}

OPTIONS = {
    "required": "\0".join(["", "--low", "l.obj", "--high", "h.obj", "--size", "512",
                           "--out-normal", "n.exr"]),
    "many": "\0".join(["", "--low", "l.kvm", "--high", "h.glb", "--size", "+1024", "--height", "512",
                       "--out-normal", "n.png", "--aa", "4", "--front", "0.5e-1", "--padding",
                       "color", "--padding-color", "1,+2.5,3", "--uv-tile", "1002",
                       "--uv-snap-bits", "off", "--match", "objects", "--backend", "auto",
                       "--gpu-pipeline", "resident", "--gpu-precision", "fp32",
                       "--gpu-band-growth", "64", "--raster-material", "m",
                       "--memory-budget-mb", "100", "--average-normals", "on"]),
    "settings": "\x01" + "\0".join(["--size", "256", "--dilation", "8", "--threads", "2",
                                    "--gpu-band-ms", "0.5", "--match", "name"]),
    "help": "\0".join(["", "--size", "5", "--help", "--nonsense"]),
}


def exr_pack(raw, compression):
    """The chunk bytes of one compression: RLE and ZIP pack the bytes split
    into even and odd ones, each stored as its difference to the one before."""
    if compression == 0:
        return raw
    split = raw[0::2] + raw[1::2]
    delta = bytes([split[0]] + [(split[i] - split[i - 1] + 128) & 0xFF for i in range(1, len(split))])
    if compression in (2, 3):
        return zlib.compress(delta, 9)
    out = bytearray()
    i = 0
    while i < len(delta):
        run = 1
        while i + run < len(delta) and run < 128 and delta[i + run] == delta[i]:
            run += 1
        if run >= 3:
            out += bytes([run - 1, delta[i]])
            i += run
            continue
        start = i
        while i < len(delta) and i - start < 127 and not (
                i + 2 < len(delta) and delta[i] == delta[i + 1] == delta[i + 2]):
            i += 1
        out += bytes([256 - (i - start)]) + delta[start:i]
    return bytes(out)


def exr(width, height, channels, compression, value):
    """A single-part scanline OpenEXR file. channels: (name, pixel type) sorted
    by name (1 half, 2 float, 0 uint); value(c, x, y) the number stored."""
    def attr(name, kind, body):
        return name.encode() + b"\0" + kind.encode() + b"\0" + struct.pack("<i", len(body)) + body
    chlist = b"".join(n.encode() + b"\0" + struct.pack("<iBxxxii", t, 0, 1, 1) for n, t in channels)
    box = struct.pack("<4i", 0, 0, width - 1, height - 1)
    header = (struct.pack("<II", 20000630, 2) + attr("channels", "chlist", chlist + b"\0")
              + attr("compression", "compression", bytes([compression]))
              + attr("dataWindow", "box2i", box) + attr("displayWindow", "box2i", box)
              + attr("lineOrder", "lineOrder", b"\0")
              + attr("pixelAspectRatio", "float", struct.pack("<f", 1))
              + attr("screenWindowCenter", "v2f", struct.pack("<2f", 0, 0))
              + attr("screenWindowWidth", "float", struct.pack("<f", 1)) + b"\0")
    formats = {0: "<I", 1: "<e", 2: "<f"}
    lines = 16 if compression == 3 else 1
    chunks = []
    for first in range(0, height, lines):
        raw = b"".join(struct.pack(formats[t], value(c, x, y))
                       for y in range(first, min(height, first + lines))
                       for c, (_, t) in enumerate(channels) for x in range(width))
        packed = exr_pack(raw, compression)
        if len(packed) >= len(raw):
            packed = raw
        chunks.append(struct.pack("<ii", first, len(packed)) + packed)
    offset = len(header) + 8 * len(chunks)
    table = b""
    for chunk in chunks:
        table += struct.pack("<Q", offset)
        offset += len(chunk)
    return header + table + b"".join(chunks)


EXRS = {
    "none_half_rgb.exr": exr(3, 2, [("B", 1), ("G", 1), ("R", 1)], 0, lambda c, x, y: 0.25 * (c + x + y)),
    "rle_half_rgba.exr": exr(5, 3, [("A", 1), ("B", 1), ("G", 1), ("R", 1)], 1,
                             lambda c, x, y: 1.0 if x < 4 else 0.5 * c),
    "zips_float_y.exr": exr(4, 2, [("Y", 2)], 2, lambda c, x, y: x * 0.125 - y),
    "zip_mixed.exr": exr(3, 18, [("A", 2), ("B", 1), ("G", 1), ("R", 1)], 3,
                         lambda c, x, y: (x + c) * 0.5 if y % 5 else 0.75),
    "zip_grey_and_uint.exr": exr(2, 17, [("Y", 1), ("id", 0)], 3, lambda c, x, y: y if c else 0.5),
}


# Texel files: component type -> (name, struct format of one sample).
KVT_TYPES = {1: ("u8", "B"), 2: ("u16", "H"), 3: ("f16", "e"), 4: ("f32", "f")}


def kvt(kind, width, height, channels):
    """A texel file of `kind` (1 to 4) whose samples count up from 0 (times
    0.25 for the float types)."""
    name, fmt = KVT_TYPES[kind]
    count = width * height * channels
    values = [i * 0.25 if fmt in "ef" else (i * 37) % (256 if fmt == "B" else 65536)
              for i in range(count)]
    header = b"KVTEX1\0\0" + struct.pack("<6I", 1, kind, width, height, channels, 0)
    return header + struct.pack("<%d%s" % (count, fmt), *values)


# Every component type with every channel count, a few texels each.
KVTS = {"%s_%dch.kvt" % (KVT_TYPES[kind][0], channels): kvt(kind, 1 + channels % 3, 2, channels)
        for kind in KVT_TYPES for channels in range(1, 5)}


def lines(*requests):
    return "".join(json.dumps(r, separators=(",", ":")) + "\n" for r in requests)


SECTION_OBJECT = {"name": "body", "vertices": 3, "triangles": 1, "positions": 0,
                  "indices": 36, "uvs": 48, "normals": 72}

# One request line per op the service does the work of, each accepted: a
# queued op gets {"queued":true}, a load is held as its job, the rest reply
# at once. The service of the harness has --parent-pid 4242.
REQUESTS = {
    "hello": lines({"id": 1, "op": "hello"}),
    "cache_status": lines({"id": 2, "op": "cache.status"}),
    "shutdown": lines({"id": 3, "op": "shutdown"}, {"id": 4, "op": "nonsense"}),
    "mesh_objects": lines({"id": 5, "op": "mesh.objects", "path": "scene.fbx", "progress": True}),
    "load_file": lines({"id": 6, "op": "mesh.load_file", "key": "low", "path": "low.obj",
                        "quads": "reject", "token": "t1", "hash": "9f2c", "up": "Y",
                        "objects": ["body", "head"], "progress": True, "uvs": False}),
    "load_file_matrix": lines({"id": 7, "op": "mesh.load_file", "key": "high", "path": "high.glb",
                               "matrix": [1, 0, 0, 2, 0, 0, -1, 0, 0, 1, 0, 0.5, 0, 0, 0, 1]}),
    "load_shm": lines({"id": 8, "op": "mesh.load_shm", "key": "k", "section": "Local\\mesh1",
                       "size": 96, "objects": [SECTION_OBJECT], "token": "t"}),
    "load_process": lines({"id": 9, "op": "mesh.load_process", "key": "k", "pid": 4242,
                           "objects": [SECTION_OBJECT, dict(SECTION_OBJECT, name="b")],
                           "hash": "h"}),
    "release": lines({"id": 10, "op": "mesh.release", "keys": ["low", "high"]}),
    "bake": lines({"id": 11, "op": "bake", "low": "low", "high": ["high", "cage"],
                   "settings": ["--size", "256", "--aa", "4", "--dilation", "8"],
                   "outputs": {"normal": "n.png", "opacity": {"path": "o.exr"}},
                   "release_after": ["low"]}),
    "scene_prepare": lines({"id": 12, "op": "scene.prepare", "low": "low", "high": "high",
                            "settings": ["--size", "128"]}),
    "transfer": lines({"id": 13, "op": "transfer", "target": "t", "source": ["s1", "s2"],
                       "settings": ["--mode", "uv2uv", "--size", "64"],
                       "outputs": ["--texture", "a.kvt", "--out", "b.kvt", "--out-mask", "m.png"]}),
    "meshmaps": lines({"id": 14, "op": "meshmaps", "low": "l", "high": "h",
                       "settings": ["--size", "64"],
                       "outputs": {"ao": "ao.png", "curvature": {"path": "c.exr"}},
                       "stream": True}),
    "memory_trim": lines({"id": 15, "op": "memory.trim", "caches": ["scenes", "preparations"]}),
    "memory_estimate": lines({"id": 16, "op": "memory.estimate", "size": [512, 1024],
                              "antialias": 4, "maps": ["normal", "ao"], "backend": "gpu",
                              "high_triangles": 100000}),
    "cancel": lines({"id": 17, "op": "scene.prepare", "low": "l", "high": "h"},
                    {"id": 18, "op": "cancel", "job": 17}),
    "framing": "\r\n \t\n" + lines({"id": -9223372036854775808, "op": "hello"}).replace(
        "\n", "\r\n") + '{"id":19,"op":"cache.status"}',
}


def main():
    for name, data in KVTS.items():
        put("kvt", name, data)
    for name, text in REQUESTS.items():
        put("request", name, text)
    for name, text in OBJS.items():
        put("obj", name, text)
    for name, data in KVMS.items():
        put("kvm", name, data)
    for name, text in GLTFS.items():
        put("gltf", name, text)
    for name, data in GLBS.items():
        put("glb", name, data)
    put("fbx", "quad_ascii.fbx", FBX_ASCII)
    put("fbx", "quad_binary.fbx", fbx_binary())
    for name, data in PNGS.items():
        put("png", name, data)
    for name, data in EXRS.items():
        put("exr", name, data)
    for name, data in OPTIONS.items():
        put("bake_options", name, data)
    # read_mesh: the first byte picks the file name (0 .obj, 1 .kvm, 2 .gltf,
    # 3 .GLB, 4 .fbx, 5 none) and the face policies.
    put("read_mesh", "obj", b"\x00" + OBJS["full.obj"].encode())
    put("read_mesh", "obj_rejecting", b"\xc0" + OBJS["groups.obj"].encode())
    put("read_mesh", "kvm_named_obj", b"\x00" + KVMS["tables.kvm"])
    put("read_mesh", "gltf", b"\x02" + GLTFS["nodes.gltf"].encode())
    put("read_mesh", "glb_no_extension", b"\x05" + GLBS["triangle.glb"])
    put("read_mesh", "fbx", b"\x04" + FBX_ASCII.encode())
    put("read_mesh", "fbx_binary_no_extension", b"\x05" + fbx_binary())


if __name__ == "__main__":
    main()
