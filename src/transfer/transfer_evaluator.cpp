#include "transfer/transfer_evaluator.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include "core/prefetch.h"
#include "image/half.h"

namespace kv::transfer {
namespace {

// Sub-samples of a texel at the largest anti-aliasing, 8 x 8.
constexpr std::size_t kMaxTexelSamples = 64;

// Points of a texel run gathered on the stack before they are read.
constexpr std::int32_t kRunPoints = 128;

// High triangles are met in no useful order, so their records and UVs miss
// the cache: while hit `ray` is read, the record of a later hit and the UVs
// of a nearer one (whose record has arrived by then) are fetched.
constexpr std::size_t kRecordAhead = 16;
constexpr std::size_t kUvsAhead = 8;

void prefetch_hit_uvs(const Mesh& source, const SampleRows& rows, std::size_t ray) {
  if (ray + kRecordAhead < rows.hit_count && rows.hits[ray + kRecordAhead].triangle >= 0) {
    prefetch(&source.triangles[static_cast<std::size_t>(rows.hits[ray + kRecordAhead].triangle)]);
  }
  if (ray + kUvsAhead < rows.hit_count && rows.hits[ray + kUvsAhead].triangle >= 0) {
    const Triangle& t =
        source.triangles[static_cast<std::size_t>(rows.hits[ray + kUvsAhead].triangle)];
    for (const Corner& c : t.corners) {
      if (c.uv >= 0 && static_cast<std::size_t>(c.uv) < source.uvs.size()) {
        prefetch(&source.uvs[static_cast<std::size_t>(c.uv)]);
      }
    }
  }
}

// The values of a read, from its texel when one texel gave it.
std::array<double, 4> values_of(const TexelSample& s) {
  if (s.texel < 0) {
    return s.values;
  }
  std::array<double, 4> values{};
  texel_values(*s.image, s.texel, values.data());
  return values;
}

// A texel's reads after its first: their sum with the first's, and whether
// they all came from the first's texel, whose bytes are then copied
// unchanged. Values are read only once a second read makes a mean necessary.
struct MoreReads {
  std::array<double, 4> sum{};
  std::uint32_t count = 1;
  bool one_texel = true;

  void add(const TexelSample& first, const TexelSample& s, int channels) {
    if (count == 1) {
      sum = values_of(first);  // not 0 + value: -0.0 stays -0.0
      one_texel = first.texel >= 0;
    }
    const std::array<double, 4> values = values_of(s);
    for (int c = 0; c < channels; ++c) {
      sum[static_cast<std::size_t>(c)] += values[static_cast<std::size_t>(c)];
    }
    one_texel = one_texel && s.image == first.image && s.texel == first.texel;
    ++count;
  }
};

// The source UVs of a triangle's corners.
struct CornerUvs {
  const std::array<double, 2>* p0 = nullptr;
  const std::array<double, 2>* p1 = nullptr;
  const std::array<double, 2>* p2 = nullptr;
};

// False when the source surface has no UVs there, and so holds no texture.
bool corner_uvs(const Mesh& source, std::int64_t triangle, CornerUvs& out) {
  const Triangle& t = source.triangles[static_cast<std::size_t>(triangle)];
  if (t.corners[0].uv < 0 || t.corners[1].uv < 0 || t.corners[2].uv < 0) {
    return false;
  }
  out.p0 = &source.uvs[static_cast<std::size_t>(t.corners[0].uv)];
  out.p1 = &source.uvs[static_cast<std::size_t>(t.corners[1].uv)];
  out.p2 = &source.uvs[static_cast<std::size_t>(t.corners[2].uv)];
  return true;
}

// The source UV at barycentrics (b1, b2).
[[gnu::always_inline]] inline void interpolate(const CornerUvs& c, double b1, double b2, double& u,
                                               double& v) {
  const double b0 = 1.0 - b1 - b2;
  u = (b0 * (*c.p0)[0] + b1 * (*c.p1)[0]) + b2 * (*c.p2)[0];
  v = (b0 * (*c.p0)[1] + b1 * (*c.p1)[1]) + b2 * (*c.p2)[1];
}

double round_code(double mean, double top) {
  if (!(mean > 0.0)) {
    return 0.0;
  }
  if (mean >= top) {
    return top;
  }
  return round_half_even(mean);
}

}  // namespace

void store_component(TexelImage& image, std::size_t index, double mean) {
  std::uint8_t* data = image.data.data();
  switch (image.type) {
    case ComponentType::kU8:
      data[index] = static_cast<std::uint8_t>(round_code(mean, 255.0));
      return;
    case ComponentType::kU16: {
      const auto code = static_cast<std::uint16_t>(round_code(mean, 65535.0));
      std::memcpy(data + index * 2, &code, 2);
      return;
    }
    case ComponentType::kF16: {
      const std::uint16_t bits = double_to_half_bits(mean);
      std::memcpy(data + index * 2, &bits, 2);
      return;
    }
    case ComponentType::kF32: {
      const auto value = static_cast<float>(mean);
      std::memcpy(data + index * 4, &value, 4);
      return;
    }
  }
}

void store_texel_values(TexelImage& image, std::size_t index, const double* means) {
  const int channels = image.channels;
  if (image.type == ComponentType::kU8) {  // the common case, without a switch per channel
    // Through a local pointer: a store through the vector's own would make
    // the compiler reload it for every channel.
    std::uint8_t* texel = image.data.data() + index;
    for (int c = 0; c < channels; ++c) {
      texel[c] = static_cast<std::uint8_t>(round_code(means[c], 255.0));
    }
    return;
  }
  for (int c = 0; c < channels; ++c) {
    store_component(image, index + c, means[c]);
  }
}

TransferEvaluator::TransferEvaluator(const Mesh& source, std::vector<OutputBuffer>& outputs,
                                     const SamplerSettings& sampler, bool from_rays, HitDump* dump)
    : source_(source), outputs_(outputs), sampler_(sampler), from_rays_(from_rays), dump_(dump) {
  counts_.texels_valid.assign(outputs.size(), 0);
  for (const OutputBuffer& out : outputs) {
    single_reads_.push_back(store_read_for(sampler, out.image.type, out.image.channels));
    // A run reads one texture for every point; bindings choose per point.
    run_reads_.push_back(out.texture_of.empty()
                             ? store_run_for(sampler, out.image.type, out.image.channels)
                             : nullptr);
  }
}

void TransferEvaluator::begin_band(std::uint64_t chunks) {
  chunks_.resize(static_cast<std::size_t>(chunks));
  for (ChunkState& state : chunks_) {
    state.counts = TransferCounts{};
    state.counts.texels_valid.assign(outputs_.size(), 0);
    state.records.clear();
  }
}

bool TransferEvaluator::source_point(const SampleRows& rows, const SubSample& sample,
                                     SourcePoint& point, HitRecord& record) const {
  double b1 = sample.b1;
  double b2 = sample.b2;
  std::int64_t triangle = sample.triangle;
  if (from_rays_) {
    if (sample.ray < 0) {
      return false;
    }
    prefetch_hit_uvs(source_, rows, static_cast<std::size_t>(sample.ray));
    if (rows.hits[sample.ray].triangle < 0) {
      return false;
    }
    const RayHit& hit = rows.hits[sample.ray];
    record = HitRecord{hit.triangle, hit.u, hit.v};
    triangle = hit.triangle;
    b1 = static_cast<double>(hit.u);
    b2 = static_cast<double>(hit.v);
  }
  CornerUvs corners;
  if (!corner_uvs(source_, triangle, corners)) {
    return false;
  }
  point.triangle = static_cast<std::uint32_t>(triangle);
  interpolate(corners, b1, b2, point.u, point.v);
  return true;
}

void TransferEvaluator::store_texel(std::size_t o, std::size_t texel, const SourcePoint* points,
                                    std::size_t count, ChunkState& state) const {
  OutputBuffer& out = outputs_[o];
  const int channels = out.image.channels;
  if (count == 1 && single_reads_[o] != nullptr) {
    // One read: its stored bits go straight into the output's texel.
    const std::int16_t k = out.texture_of.empty() ? 0 : out.texture_of[points[0].triangle];
    const std::size_t texel_bytes =
        component_bytes(out.image.type) * static_cast<std::size_t>(channels);
    if (k >= 0 &&
        single_reads_[o](out.textures[static_cast<std::size_t>(k)], points[0].u, points[0].v,
                         sampler_, out.image.data.data() + texel * texel_bytes)) {
      out.valid[texel] = 1;
      ++state.counts.texels_valid[o];
    }
    return;
  }
  // The first read goes straight into `first`: at anti-aliasing 1 it is the
  // only one, and its texel is copied without ever being read as numbers.
  TexelSample first;
  TexelSample sample;
  MoreReads more;
  bool found = false;
  for (std::size_t i = 0; i < count; ++i) {
    const std::int16_t k = out.texture_of.empty() ? 0 : out.texture_of[points[i].triangle];
    if (k < 0) {
      continue;
    }
    const SourceTexture& texture = out.textures[static_cast<std::size_t>(k)];
    if (!found) {
      found = sample_texture(texture, points[i].u, points[i].v, sampler_, first);
    } else if (sample_texture(texture, points[i].u, points[i].v, sampler_, sample)) {
      more.add(first, sample, channels);
    }
  }
  if (!found) {
    return;
  }
  const std::size_t type_bytes = component_bytes(out.image.type);
  const std::size_t at = texel * static_cast<std::size_t>(channels);
  if (more.count == 1 ? first.texel >= 0 : more.one_texel) {
    const std::size_t bytes = type_bytes * static_cast<std::size_t>(channels);
    std::memcpy(out.image.data.data() + at * type_bytes,
                first.image->data.data() + static_cast<std::size_t>(first.texel) * bytes, bytes);
  } else {
    std::array<double, 4> mean = more.count == 1 ? first.values : more.sum;
    if (more.count > 1) {
      for (double& value : mean) {
        value /= static_cast<double>(more.count);
      }
    }
    store_texel_values(out.image, at, mean.data());
  }
  out.valid[texel] = 1;
  ++state.counts.texels_valid[o];
}

void TransferEvaluator::evaluate(std::uint64_t chunk, const SampleRows& rows) {
  ChunkState& state = chunks_[static_cast<std::size_t>(chunk)];
  std::array<SourcePoint, kMaxTexelSamples> points;
  for (std::int32_t y = rows.y_begin; y < rows.y_end; ++y) {
    for (std::int32_t x = 0; x < rows.width; ++x) {
      const SubSample* samples = rows.texel(x, y);
      std::size_t count = 0;
      bool covered = false;
      for (std::size_t s = 0; s < rows.texel_samples(); ++s) {
        HitRecord record;
        if (samples[s].triangle >= 0) {
          covered = true;
          if (source_point(rows, samples[s], points[count], record)) {
            ++count;
            ++state.counts.hits;
          } else {
            ++state.counts.missed;
          }
        }
        if (dump_ != nullptr) {
          state.records.push_back(record);
        }
      }
      if (!covered) {
        continue;
      }
      ++state.counts.texels_covered;
      const std::size_t texel = static_cast<std::size_t>(y) * static_cast<std::size_t>(rows.width) +
                                static_cast<std::size_t>(x);
      for (std::size_t o = 0; o < outputs_.size(); ++o) {
        store_texel(o, texel, points.data(), count, state);
      }
    }
  }
}

bool TransferEvaluator::takes_texel_runs() const {
  return !from_rays_ && dump_ == nullptr;
}

void TransferEvaluator::store_run(std::size_t o, const TexelRun& run, const RunPoint* points,
                                  const std::uint32_t* triangles, std::size_t count,
                                  ChunkState& state) const {
  OutputBuffer& out = outputs_[o];
  const std::size_t first =
      static_cast<std::size_t>(run.y) * static_cast<std::size_t>(out.image.width) +
      static_cast<std::size_t>(run.x_begin);
  if (run_reads_[o] != nullptr) {
    const std::size_t texel_bytes =
        component_bytes(out.image.type) * static_cast<std::size_t>(out.image.channels);
    state.counts.texels_valid[o] +=
        run_reads_[o](out.textures[0], sampler_, points, count,
                      out.image.data.data() + first * texel_bytes, out.valid.data() + first);
    return;
  }
  for (std::size_t i = 0; i < count; ++i) {
    const SourcePoint point{triangles[i], points[i].u, points[i].v};
    store_texel(o, first + static_cast<std::size_t>(points[i].x), &point, 1, state);
  }
}

void TransferEvaluator::evaluate_run(std::uint64_t chunk, const TexelRun& run) {
  ChunkState& state = chunks_[static_cast<std::size_t>(chunk)];
  // Left unset: every entry read is written first.
  RunPoint points[kRunPoints];
  std::uint32_t triangles[kRunPoints];
  // Neighbouring texels mostly share a triangle: its corners are found once.
  std::int32_t last = -1;
  CornerUvs corners;
  bool has_uvs = false;
  // In pieces of what the stack holds; a texel's outputs need only its own point.
  for (std::int32_t begin = 0; begin < run.count; begin += kRunPoints) {
    const std::int32_t end = std::min(run.count, begin + kRunPoints);
    std::size_t found = 0;
    for (std::int32_t i = begin; i < end; ++i) {
      const RasterHit& hit = run.hits[i];
      if (hit.triangle < 0) {
        continue;
      }
      ++state.counts.texels_covered;
      if (hit.triangle != last) {
        last = hit.triangle;
        has_uvs = corner_uvs(source_, last, corners);
      }
      if (!has_uvs) {
        ++state.counts.missed;
        continue;
      }
      ++state.counts.hits;
      RunPoint& point = points[found];
      interpolate(corners, hit.b1, hit.b2, point.u, point.v);
      point.x = i;
      triangles[found] = static_cast<std::uint32_t>(hit.triangle);
      ++found;
    }
    for (std::size_t o = 0; o < outputs_.size(); ++o) {
      store_run(o, run, points, triangles, found, state);
    }
  }
}

void TransferEvaluator::end_band() {
  for (const ChunkState& state : chunks_) {
    counts_.texels_covered += state.counts.texels_covered;
    counts_.hits += state.counts.hits;
    counts_.missed += state.counts.missed;
    for (std::size_t o = 0; o < outputs_.size(); ++o) {
      counts_.texels_valid[o] += state.counts.texels_valid[o];
    }
    if (dump_ != nullptr) {
      dump_->append(state.records);
    }
  }
}

}  // namespace kv::transfer
