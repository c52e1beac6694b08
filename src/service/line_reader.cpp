#include "service/line_reader.h"

namespace kv::service {

bool LineReader::fill() {
  if (finished_) {
    return false;
  }
  const std::int64_t n = read_(buffer_, sizeof buffer_);
  if (n <= 0) {
    finished_ = true;
    return false;
  }
  begin_ = 0;
  end_ = static_cast<std::size_t>(n);
  return true;
}

LineStatus LineReader::next(std::string& line) {
  line.clear();
  bool any = false;
  bool too_long = false;
  for (;;) {
    if (begin_ == end_ && !fill()) {
      if (!any) {
        return LineStatus::end;
      }
      break;
    }
    any = true;
    const char c = buffer_[begin_++];
    if (c == '\n') {
      break;
    }
    if (too_long) {
      continue;
    }
    if (line.size() >= limit_) {
      // Dropped at once: the rest of the line is read and thrown away.
      std::string().swap(line);
      too_long = true;
      continue;
    }
    line.push_back(c);
  }
  if (too_long) {
    return LineStatus::too_long;
  }
  if (!line.empty() && line.back() == '\r') {
    line.pop_back();
  }
  return LineStatus::line;
}

bool is_blank(const std::string& line) {
  return line.find_first_not_of(" \t") == std::string::npos;
}

}  // namespace kv::service
