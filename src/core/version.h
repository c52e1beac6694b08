// The program's version, as project() in CMakeLists.txt sets it.
#pragma once

namespace kv {

// "major.minor.patch".
const char* version();

}  // namespace kv
