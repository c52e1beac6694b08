#!/usr/bin/env python3
"""Writes the hand-made regression inputs of fuzz/regressions/<target>/.

They recreate, as small files, what the readers once failed on: JSON nested
deep enough to overflow the parser's stack, an accessor whose count alone
asks for gigabytes, instancing that multiplies a small file, PNG headers that
ask for terabytes. Inputs found by the fuzzers are copied in as they were
found. Each input's expected outcome is listed in outcomes.txt.
"""
import json
import os
import struct
import sys
import zlib

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from make_corpus import (FBX_ASCII, SECTION_OBJECT, fbx_binary, glb, gltf_triangle,  # noqa: E402
                         gltf_text, kvt, lines, png)

HERE = os.path.dirname(os.path.abspath(__file__))


def put(target, name, data):
    folder = os.path.join(HERE, "regressions", target)
    os.makedirs(folder, exist_ok=True)
    if isinstance(data, str):
        data = data.encode()
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


def bufferless(count, nodes):
    return json.dumps({
        "asset": {"version": "2.0"},
        "accessors": [{"componentType": 5126, "count": count, "type": "VEC3"}],
        "meshes": [{"primitives": [{"attributes": {"POSITION": 0}}]}],
        "nodes": [{"mesh": 0} for _ in range(nodes)],
        "scenes": [{"nodes": list(range(nodes))}],
    }, separators=(",", ":"))


def main():
    deep = '{"asset":{"version":"2.0"},"extras":' + "[" * 20000 + "]" * 20000 + "}"
    put("gltf", "deep_extras.gltf", deep)
    deep_doc = '{"asset":{"version":"2.0"},"extras":{"a":' + "[" * 20000 + "]" * 20000 + "}}"
    put("glb", "deep_extras.glb", glb_json_only(deep_doc))
    put("gltf", "bufferless_count.gltf", bufferless(2000000000, 1))
    put("gltf", "bufferless_count_past_limit.gltf", bufferless(3000000000, 1))
    put("gltf", "instancing_past_limit.gltf", bufferless(16777216, 200))
    put("gltf", "instancing_past_budget.gltf", bufferless(16777216, 20))
    doc, data = gltf_triangle()
    doc["nodes"] = [{"mesh": 0, "name": "a"} for _ in range(3)]
    doc["scenes"] = [{"nodes": [0, 1, 2, 1]}]
    put("glb", "node_listed_twice.glb", glb(doc, data))
    doc, data = gltf_triangle()
    doc["nodes"] = [{"mesh": 0, "children": [1]}, {"mesh": 0, "children": [0]}]
    put("gltf", "node_cycle.gltf", gltf_text(doc, data))
    doc, data = gltf_triangle()
    doc["buffers"][0]["uri"] = "missing.bin"
    put("gltf", "missing_buffer.gltf", json.dumps(doc))

    fbx_findings()
    kvt_refusals()
    request_refusals()
    put("png", "side_past_limit.png", png_header(1 << 20, 1 << 20, 6, 16))
    put("png", "header_bomb.png", png_header(16384, 16384, 6, 16))
    put("png", "bomb_within_side.png", png(4096, 4096, 0, 8, [b"\0" * 4096] * 4096))


def fbx_findings():
    """Binary FBX files that Assimp itself fails on (kept out of the replay)."""
    header = b"Kaydara FBX Binary  \x00\x1a\x00" + struct.pack("<I", 7400)
    # Records nested 100000 deep, each ending where its parent ends.
    depth = 30000
    name = b"N"
    record = 13 + len(name)
    end = len(header) + depth * record + 13 * depth
    nested = b""
    for level in range(depth):
        nested += struct.pack("<IIIB", end - 13 * level, 0, 0, len(name)) + name
    nested += b"\0" * 13 * depth
    put("fbx-contained", "deep_records.fbx", header + nested + b"\0" * 13 + b"\0" * 160)
    # A float64 array that claims 0x30000000 elements (6 GiB) behind 12 zlib bytes.
    packed = zlib.compress(b"\0" * 64)
    prop = b"d" + struct.pack("<III", 0x30000000, 1, len(packed)) + packed
    put("fbx-contained", "array_count.fbx", fbx_binary(prop))
    # The model connected to itself as well as to the root (found by the fbx
    # target): the importer's conversion of the node tree never ends.
    put("fbx-contained", "model_parent_of_itself.fbx",
        FBX_ASCII.replace('\tC: "OO",2000,0\n', '\tC: "OO",2000,0\n\tC: "OO",2000,2000\n'))


def kvt_refusals():
    """Texel files each refused by one check, in the reader's order of checks."""
    good = kvt(2, 2, 2, 4)  # 2 x 2 RGBA u16: 64 bytes

    def field(offset, value, data=good):
        return data[:offset] + struct.pack("<I", value) + data[offset + 4:]
    put("kvt", "short_header.kvt", good[:31])
    put("kvt", "bad_magic.kvt", b"KVTEX2\0\0" + good[8:])
    put("kvt", "version_2.kvt", field(8, 2))
    put("kvt", "type_5.kvt", field(12, 5, field(8, 1)))
    put("kvt", "type_0_reserved_1.kvt", field(28, 1, field(12, 0)))
    put("kvt", "reserved_1.kvt", field(28, 1))
    put("kvt", "width_past_limit.kvt", field(16, 16385))
    put("kvt", "width_0.kvt", field(16, 0))
    put("kvt", "channels_0.kvt", field(24, 0))
    put("kvt", "channels_5.kvt", field(24, 5))
    put("kvt", "one_byte_short.kvt", good[:-1])
    put("kvt", "one_byte_over.kvt", good + b"\0")
    # 16384 x 16384 x 4 f32 (4 GiB) declared by a header alone: refused
    # from the length, before anything is allocated.
    put("kvt", "header_only_4gib.kvt", kvt(4, 1, 1, 1)[:32].replace(
        struct.pack("<3I", 1, 1, 1), struct.pack("<3I", 16384, 16384, 4)))


def request_refusals():
    """Near misses of each op, refused with the message that names the fault."""
    def req(op, rid=1, **fields):
        return dict({"id": rid, "op": op}, **fields)
    load = req("mesh.load_file", key="k", path="a.obj")
    shm = req("mesh.load_shm", key="k", section="s", size=96, objects=[SECTION_OBJECT])
    bake = req("bake", low="l", high="h", settings=["--size", "64"], outputs={"normal": "n.png"})
    estimate = req("memory.estimate", size=64, antialias=1, maps=["normal"], backend="cpu",
                   high_triangles=1)
    cases = {
        "not_json": '{"id":1,"op":"hello"\n',
        "array": "[1]\n",
        "no_id": '{"op":"hello"}\n',
        "id_not_integer": '{"id":1.5,"op":"hello"}\n',
        "id_past_int64": '{"id":9223372036854775808,"op":"hello"}\n',
        "unknown_op": lines(req("mesh.unload")),
        "op_not_string": lines(req(7)),
        "unknown_field": lines(req("hello", extra=1)),
        "missing_field": lines(req("mesh.load_file", key="k")),
        "up_and_matrix": lines(dict(load, up="Z", matrix=[1, 0, 0, 0] * 3 + [0, 0, 0, 1])),
        "up_x": lines(dict(load, up="X")),
        "matrix_last_row": lines(dict(load, matrix=[1, 0, 0, 0] * 3 + [0, 0, 0, 2])),
        "matrix_short": lines(dict(load, matrix=[1, 0, 0, 0])),
        "names_repeat": lines(dict(load, objects=["a", "b", "a"])),
        "names_4097": lines(dict(load, objects=["n%d" % i for i in range(4097)])),
        "quads_keep": lines(dict(load, quads="keep")),
        "path_with_nul": lines(dict(load, path="a\0.obj")),
        "key_1025_bytes": lines(dict(load, key="k" * 1025)),
        "shm_size_0": lines(dict(shm, size=0)),
        "shm_object_missing_field": lines(dict(shm, objects=[{"name": "a", "vertices": 3}])),
        "shm_objects_empty": lines(dict(shm, objects=[])),
        "process_pid_0": lines(req("mesh.load_process", key="k", pid=0, objects=[SECTION_OBJECT])),
        "process_not_parent": lines(req("mesh.load_process", key="k", pid=4243,
                                        objects=[SECTION_OBJECT])),
        "bake_unknown_option": lines(dict(bake, settings=["--size", "64", "--colour", "red"])),
        "bake_output_section_too_small": lines(dict(bake, outputs={"normal": {"section": "s", "size": 9}})),
        "bake_preview_without_sides": lines(dict(bake, preview={"section": "p"})),
        "bake_same_id_twice": lines(bake, dict(bake, low="other")),
        "transfer_settings_without_mode": lines(req("transfer", target="t", source="s",
                                                    settings=["--size", "64"],
                                                    outputs=["--texture", "a.kvt", "--out", "b.kvt"])),
        "meshmaps_unknown_map": lines(req("meshmaps", low="l", high="h", settings=["--size", "64"],
                                          outputs={"glow": "g.png"})),
        "estimate_antialias_3": lines(dict(estimate, antialias=3)),
        "estimate_backend": lines(dict(estimate, backend="cuda")),
        "estimate_high_and_count": lines(dict(estimate, high="h")),
        "estimate_high_not_loaded": lines(dict(req("memory.estimate", size=64, antialias=1,
                                                   maps=["normal"], backend="cpu", high=["h"]))),
        "estimate_unknown_map": lines(dict(estimate, maps=["normal", "glow"])),
        "trim_unknown_cache": lines(req("memory.trim", caches=["tracers"])),
        "cancel_unknown_job": lines(req("cancel", job=77)),
        "release_not_list": lines(req("mesh.release", keys="k")),
        "rays_hit": lines(req("rays.hit", key="k", count=1, t_max=1)),
        "mesh_lod": lines(req("mesh.lod", key="k", target_tris=10, max_error=0.1)),
        "long_op_cut": lines(req("\u00e9" * 600)),
    }
    for name, text in cases.items():
        put("request", name, text)


def glb_json_only(text):
    body = text.encode()
    body += b" " * (-len(body) % 4)
    chunk = struct.pack("<I4s", len(body), b"JSON") + body
    return struct.pack("<4sII", b"glTF", 2, 12 + len(chunk)) + chunk


def png_header(width, height, colour, depth):
    """A PNG that declares the size and holds only a few compressed bytes."""
    def chunk(kind, body):
        return struct.pack(">I", len(body)) + kind + body + struct.pack(">I", zlib.crc32(kind + body))
    return (b"\x89PNG\r\n\x1a\n" +
            chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, depth, colour, 0, 0, 0)) +
            chunk(b"IDAT", zlib.compress(b"\0" * 64)) + chunk(b"IEND", b""))


if __name__ == "__main__":
    main()
