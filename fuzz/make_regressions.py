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
from make_corpus import FBX_ASCII, fbx_binary, glb, gltf_triangle, gltf_text, png  # noqa: E402

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
