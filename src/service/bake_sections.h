// The shared-memory sections of a bake: its maps as .kvt images of UNORM16
// codes, and its live preview. Each section is opened and checked when the
// request is read, so a wrong one is refused before any work, and stays
// mapped until the job ends.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>

#include "normal/normal_bake.h"
#include "platform/platform.h"
#include "run/bake_progress.h"
#include "service/field_reader.h"
#include "service/job_output.h"

namespace kv::service {

struct MapSection {
  std::string name;  // empty: the map has no section
  std::shared_ptr<platform::SharedSection> mapping;
};

// The section of a map of width x height texels of `channels` codes: its
// size must be exactly the .kvt image's, and it must exist. Field errors name
// `field`.
MapSection open_map_section(const FieldReader& fields, const std::string& field,
                            const JobOutput& output, int width, int height, int channels);

// Copies the codes into the section as one .kvt image of u16 texels.
void write_map_section(const MapSection& section, int width, int height, int channels,
                       std::span<const std::uint16_t> codes);

struct PreviewSection {
  std::shared_ptr<platform::SharedSection> mapping;
  run::MemoryPreview preview;  // its pixels lie in the mapping
};

// The bake's "preview" field: {"section", "size", "width", "height"}; the
// section holds at least width x height x 4 bytes.
PreviewSection read_preview_section(const FieldReader& fields);

// The sections of a bake's outputs, read with the outputs themselves.
struct BakeSections {
  MapSection normal;
  MapSection opacity;
  std::optional<PreviewSection> preview;

  // Writes the map sections from the padded maps. Until then a section holds
  // what the client left there: a failed or cancelled bake never touches it,
  // and a client reads it after the job's final reply.
  void write(const NormalBakeResult& result, int width, int height) const;
};

}  // namespace kv::service
