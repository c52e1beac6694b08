// Progress of one bake: turns the bake's callbacks into events, preview
// updates and notices for a progress sink.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "normal/normal_bake.h"
#include "run/preview_file.h"
#include "run/progress_sink.h"

namespace kv::run {

// A preview in memory a client reads, such as a shared-memory section; the
// "preview" event names it under "section".
struct MemoryPreview {
  std::string section;
  std::span<std::uint8_t> pixels;  // at least preview_bytes(size) bytes
  PreviewSize size;
};

// Callbacks may come from any thread. The finished count grows in the same
// locked step that sends the region event and updates the preview.
class BakeProgress {
 public:
  // Creates the preview file when one is set, and zero-fills the memory
  // preview when one is given; sends a "preview" event for each.
  BakeProgress(const NormalBakeSettings& settings, ProgressSink& sink,
               const MemoryPreview* memory = nullptr);

  // Callbacks for bake_normal_map; they refer to this object.
  NormalBakeCallbacks callbacks();

 private:
  void tracing_started(std::string_view description);
  void region_finished(const TexelRegion& region, const NormalBakeResult& partial);
  void low_memory(const BakeMemoryNotice& notice);

  const NormalBakeSettings& settings_;
  ProgressSink& sink_;
  std::uint64_t total_;
  std::vector<std::unique_ptr<Preview>> previews_;
  std::mutex lock_;
  std::uint64_t done_ = 0;
};

}  // namespace kv::run
