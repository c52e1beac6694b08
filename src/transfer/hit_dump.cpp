#include "transfer/hit_dump.h"

#include <array>
#include <cstring>

#include "platform/platform.h"

namespace kv::transfer {

HitDump::HitDump(const std::filesystem::path& path, std::int32_t width, std::int32_t height,
                 std::int32_t aa)
    : file_(path) {
  const std::filesystem::path parent = path.parent_path();
  if (!parent.empty()) {
    platform::create_directories(parent);  // a failure shows when the file is created
  }
  file_.create();
  std::array<std::uint8_t, kHitDumpHeaderBytes> header{};
  std::memcpy(header.data(), "KVHITS1", 8);  // the magic and its zero byte
  const std::array<std::uint32_t, 6> fields = {1u,
                                               static_cast<std::uint32_t>(width),
                                               static_cast<std::uint32_t>(height),
                                               static_cast<std::uint32_t>(aa),
                                               static_cast<std::uint32_t>(sizeof(HitRecord)),
                                               0u};
  std::memcpy(header.data() + 8, fields.data(), sizeof fields);
  file_.write(header.data(), header.size());
}

void HitDump::append(std::span<const HitRecord> records) {
  file_.write(records.data(), records.size_bytes());
}

void HitDump::finish() {
  file_.commit();
}

}  // namespace kv::transfer
