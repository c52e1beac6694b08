#include "run/bake_progress.h"

namespace kv::run {

BakeProgress::BakeProgress(const NormalBakeSettings& settings, ProgressSink& sink,
                           const MemoryPreview* memory)
    : settings_(settings),
      sink_(sink),
      total_(static_cast<std::uint64_t>(settings.width) *
             static_cast<std::uint64_t>(settings.height)) {
  const auto announce = [&](const char* where, const std::string& name, PreviewSize size) {
    Json event = make_event("preview");
    event[where] = name;
    event["width"] = size.width;
    event["height"] = size.height;
    sink_.event(event);
  };
  if (!settings.preview.empty()) {
    const PreviewSize size = preview_size(settings.preview_size, settings.width, settings.height);
    previews_.push_back(
        std::make_unique<PreviewFile>(settings.preview, size, settings.width, settings.height));
    announce("path", settings.preview.string(), size);
  }
  if (memory != nullptr) {
    previews_.push_back(std::make_unique<PreviewMemory>(memory->pixels, memory->size,
                                                        settings.width, settings.height));
    announce("section", memory->section, memory->size);
  }
}

NormalBakeCallbacks BakeProgress::callbacks() {
  NormalBakeCallbacks c;
  c.phase_started = [this](std::string_view phase) { sink_.event(phase_event(phase)); };
  c.tracing_started = [this](std::string_view description) { tracing_started(description); };
  c.region_finished = [this](const TexelRegion& region, const NormalBakeResult& partial) {
    region_finished(region, partial);
  };
  c.low_memory = [this](const BakeMemoryNotice& notice) { low_memory(notice); };
  return c;
}

void BakeProgress::tracing_started(std::string_view description) {
  Json event = make_event("bake");
  event["backend"] = description;
  event["width"] = settings_.width;
  event["height"] = settings_.height;
  // A fixed tile edge, kept for clients that read one; the bake itself
  // finishes whole row bands, which the region events report.
  event["tile"] = 64;
  sink_.event(event);
}

void BakeProgress::region_finished(const TexelRegion& region, const NormalBakeResult& partial) {
  std::lock_guard guard(lock_);
  done_ += static_cast<std::uint64_t>(region.w) * static_cast<std::uint64_t>(region.h);
  if (sink_.wants_events()) {
    sink_.event(region_event(region.x, region.y, region.w, region.h, done_, total_));
  }
  for (const std::unique_ptr<Preview>& preview : previews_) {
    preview->update(region.x, region.y, region.w, region.h, partial.normal.data(),
                    partial.outside.data());
  }
  if (!previews_.empty()) {
    sink_.preview_updated(region.x, region.y, region.w, region.h);
  }
}

void BakeProgress::low_memory(const BakeMemoryNotice& notice) {
  Json event = make_event("notice");
  event["notice"] = "low_memory";
  event["stage"] = notice.stage;
  event["reason"] = notice.reason;
  event["from"] = notice.from;
  event["to"] = notice.to;
  sink_.event(event);
}

}  // namespace kv::run
