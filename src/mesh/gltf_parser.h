// The glTF parser, compiled into this library under a namespace of its own.
// Other shared libraries in the process (a mesh decoder that the FBX importer
// pulls in) carry their own, differently built copy of the same parser, whose
// exported functions would otherwise be bound in place of the ones matching
// these declarations. Include this header instead of the parser's own.
#pragma once

#define TINYGLTF_NO_STB_IMAGE
#define TINYGLTF_NO_STB_IMAGE_WRITE
#define TINYGLTF_NO_EXTERNAL_IMAGE
#define tinygltf kv_gltf_parser
#include <tiny_gltf.h>
