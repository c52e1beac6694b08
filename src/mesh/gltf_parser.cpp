// The parser's implementation, built once here (see gltf_parser.h). It needs
// no image decoder: only geometry is read, images are skipped.
#define TINYGLTF_IMPLEMENTATION
#include "mesh/gltf_parser.h"
