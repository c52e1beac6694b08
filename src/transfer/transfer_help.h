// The usage text of `korvane transfer --help`.
#pragma once

#include <string>

namespace kv::transfer {

const std::string& transfer_usage_text();

}  // namespace kv::transfer
