// Temporary stand-in until the shared-memory mesh reader lands.
#include "service/section_mesh.h"

namespace kv::service {

Mesh read_section_mesh(const std::string&, std::uint64_t, const std::vector<SectionObject>&,
                       const std::atomic<bool>*) {
  throw kv::Error("the shared-memory mesh reader is not built");
}

Mesh read_process_mesh(std::uint32_t, const std::vector<SectionObject>&, const std::atomic<bool>*) {
  throw kv::Error("the process-memory mesh reader is not built");
}

}  // namespace kv::service
