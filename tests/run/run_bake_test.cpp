// The bake run as a library: what reaches its sink, in what order, and that
// the command line prints exactly that.
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "core/json_line.h"
#include "run/bake_options.h"
#include "run/run_bake.h"
#include "support/test_support.h"

namespace kv::run {
namespace {

// A unit quad facing +Z with UVs over the tile, plus a self-crossing
// pentagon that cannot be triangulated exactly.
constexpr std::string_view kLow =
    "o low\nv 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nvt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\nvn 0 0 1\n"
    "f 1/1/1 2/2/1 3/3/1 4/4/1\nv 0 0 0\nv 1 1 0\nv 1 0 0\nv 0 1 0\nv 0.5 2 0\n"
    "f 5/1/1 6/2/1 7/3/1 8/4/1 9/1/1\n";
constexpr std::string_view kHigh =
    "o high\nv -1 -1 0.001\nv 2 -1 0.001\nv 2 2 0.001\nv -1 2 0.001\nvn 0 0 1\n"
    "f 1//1 2//1 3//1\nf 1//1 3//1 4//1\n";

// Everything the run hands over, in one log in arrival order.
class RecordingSink final : public ProgressSink {
 public:
  explicit RecordingSink(bool wanted) : wanted_(wanted) {}
  bool wants_events() const override { return wanted_; }
  void event(const Json& event) override { add({'E', json_line(event)}); }
  void preview_updated(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h) override {
    add({'P', std::to_string(x) + " " + std::to_string(y) + " " + std::to_string(w) + " " +
                  std::to_string(h)});
  }
  void warning(std::string_view text) override { add({'W', std::string(text)}); }

  struct Entry {
    char kind;
    std::string text;
  };
  std::vector<Entry> log;

 private:
  void add(Entry entry) {
    std::lock_guard guard(lock_);
    log.push_back(std::move(entry));
  }
  bool wanted_;
  std::mutex lock_;
};

std::string keys_of(const Json& object) {
  std::string keys;
  for (const auto& item : object.items()) {
    keys += item.key() + " ";
  }
  return keys;
}

// The summary text without its "seconds" object, the one part that differs
// between two runs.
std::string without_seconds(std::string summary) {
  const std::size_t start = summary.find("\"seconds\":{");
  if (start != std::string::npos) {
    summary.erase(start, summary.find("},", start) + 2 - start);
  }
  return summary;
}

struct Job {
  test::ScratchDir dir;
  std::vector<std::string> job = {"--size", "16", "--height", "8", "--aa", "2", "--threads", "1"};
  std::vector<std::string> paths = {"--low",          (dir / "low.obj").string(),
                                    "--high",         (dir / "high.obj").string(),
                                    "--out-normal",   (dir / "n.exr").string(),
                                    "--preview",      (dir / "preview.rgba").string(),
                                    "--preview-size", "4",
                                    "--cache-dir",    (dir / "file" / "cache").string()};
  Job() {
    test::write_text_file(dir / "low.obj", kLow);
    test::write_text_file(dir / "high.obj", kHigh);
    test::write_text_file(dir / "file", "in the way of the cache folder");
  }
  // The job's settings as a service would have them: read in settings mode,
  // the paths filled in by the caller.
  NormalBakeSettings settings(bool progress) const {
    NormalBakeSettings s = pipeline::parseBakeSettings(job);
    s.low = dir / "low.obj";
    s.high = dir / "high.obj";
    s.out_normal = dir / "n.exr";
    s.preview = dir / "preview.rgba";
    s.preview_size = 4;
    s.cache_dir = dir / "file" / "cache";
    s.progress = progress;
    return s;
  }
};

TEST(RunBake, SinkGetsEventsWarningsAndPreviewInOrderAndTheCommandPrintsTheSame) {
  Job j;
  RecordingSink sink(true);
  const Json summary = run_bake(j.settings(true), sink);

  std::vector<std::string>
      order;  // phases by name, other events as "<name> event", warnings as "!"
  std::vector<std::string> warnings, events;
  std::uint64_t done = 0;
  for (std::size_t i = 0; i < sink.log.size(); ++i) {
    const auto& [kind, text] = sink.log[i];
    if (kind == 'W') {
      order.push_back("!");
      warnings.push_back(text);
      continue;
    }
    ASSERT_EQ(kind, 'E') << text;  // preview updates follow their region below
    events.push_back(text);
    const Json event = Json::parse(text);
    const std::string name = event["event"];
    order.push_back(name == "phase" ? event["phase"].get<std::string>() : name + " event");
    if (name == "bake") {
      EXPECT_EQ(keys_of(event), "event backend width height tile ");
      EXPECT_EQ(event["tile"], 64);
    } else if (name == "preview") {
      EXPECT_EQ(text, "{\"event\":\"preview\",\"path\":\"" + (j.dir / "preview.rgba").string() +
                          "\",\"width\":4,\"height\":2}");
    } else if (name == "region") {
      EXPECT_EQ(keys_of(event), "event x y w h done total ");
      done += event["w"].get<std::uint64_t>() * event["h"].get<std::uint64_t>();
      EXPECT_EQ(event["done"], done);
      EXPECT_EQ(event["total"], 16 * 8);
      ASSERT_LT(i + 1, sink.log.size());
      EXPECT_EQ(sink.log[i + 1].kind, 'P');
      EXPECT_EQ(sink.log[i + 1].text, event["x"].dump() + " " + event["y"].dump() + " " +
                                          event["w"].dump() + " " + event["h"].dump());
      ++i;
    }
  }
  EXPECT_EQ(done, 16u * 8u);
  // Load warnings come as each load ends: the low's two, then the high's.
  order.erase(std::unique(order.begin(), order.end()), order.end());
  EXPECT_EQ(order, (std::vector<std::string>{"load", "!", "preview event", "bvh", "bake",
                                             "bake event", "region event", "padding", "write"}));
  const std::string store =
      "korvane: warning: the mesh cache was not written: cannot create "
      "the cache folder " +
      (j.dir / "file" / "cache").string() + ": Not a directory\n";
  EXPECT_EQ(warnings, (std::vector<std::string>{"korvane: warning: 1 faces of " +
                                                    (j.dir / "low.obj").string() +
                                                    " could not be triangulated exactly\n",
                                                store, store}));
  EXPECT_EQ(summary.begin().key(), "korvane");
  EXPECT_EQ(summary["width"], 16);
  EXPECT_EQ(summary["low_triangles"], 5);

  // The command line: the same events on stdout, then the summary's dump;
  // the same warnings on stderr.
  std::vector<std::string> args = j.paths;
  args.insert(args.end(), j.job.begin(), j.job.end());
  args.insert(args.end(), {"--progress", "1"});
  const auto r = test::run_korvane(args);
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::string expected_out;
  for (const std::string& event : events) {
    expected_out += event + "\n";
  }
  const std::size_t last = r.out.rfind('\n', r.out.size() - 2) + 1;
  EXPECT_EQ(r.out.substr(0, last), expected_out);
  EXPECT_EQ(without_seconds(r.out.substr(last)), without_seconds(json_line(summary)) + "\n");
  EXPECT_EQ(r.err, warnings[0] + warnings[1] + warnings[2]);
}

TEST(RunBake, QuietSinkStillGetsPhasesButNoRegionEvents) {
  Job j;
  RecordingSink sink(false);
  run_bake(j.settings(false), sink);
  std::string kinds;
  for (const auto& entry : sink.log) {
    EXPECT_EQ(entry.text.find("\"region\""), std::string::npos);
    kinds += entry.kind;
  }
  // Preview updates still come: the file is written whoever listens.
  EXPECT_NE(kinds.find('P'), std::string::npos);
  EXPECT_EQ(kinds.substr(0, 5), "EWWWE");  // load phase, warnings, preview event
}

}  // namespace
}  // namespace kv::run
