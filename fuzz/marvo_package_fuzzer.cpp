// Arbitrary bytes as a Marvo OTA package: parse, build the list for both partitions and
// extract every component. AddressSanitizer catches any read outside the package; the
// checks below catch results that break the package rules.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "marvo_package.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A copy of exactly `size` bytes, so a read one past the end is caught.
  std::vector<uint8_t> package(data, data + size);
  varkel::OtaPackageHeader header;
  std::vector<std::string> info;
  const auto result = varkel::ParseOtaPackageHeader(package.data(), package.size(), header, &info);
  if (result != varkel::OtaParseResult::kOk) {
    if (header.flags != 0 || header.total_size != 0) __builtin_trap();
    return 0;
  }
  for (int i = 0; i < varkel::kOtaComponentCount; ++i) {
    const bool flagged = (header.flags >> i) & 1;
    if (header.components[static_cast<size_t>(i)].present != flagged) __builtin_trap();
  }
  for (uint32_t partition : {0u, 1u}) {
    for (const varkel::OtaComponent& c : varkel::BuildOtaUpgradeList(header, partition)) {
      info.clear();
      const std::vector<uint8_t> bytes = varkel::ExtractOtaComponent(package.data(), package.size(), c, &info);
      if (bytes.size() > c.size) __builtin_trap();
      if (bytes.empty() != !info.empty() && c.size != 0) __builtin_trap();
      // The data are the package's own bytes, at the (wrapped) start.
      const uint32_t start = 56u + c.offset;
      const size_t skipped = c.size - bytes.size();
      if (!bytes.empty() && std::memcmp(bytes.data(), package.data() + start + skipped, bytes.size()) != 0)
        __builtin_trap();
    }
  }
  return 0;
}
