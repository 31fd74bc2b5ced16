#pragma once
// The Marvo lidar's component OTA package: a 56-byte little-endian header ("QRNA", the
// total size, a flags byte and five offset/size pairs) followed by the component data.
// Parsing, the choice of components to send and their extraction; the texts the log pane
// shows come back as data, so the controller decides when to send them.
//
// Whatever the header claims, nothing outside the package bytes is ever read.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace varkel {

constexpr size_t kOtaHeaderSize = 56;
constexpr size_t kOtaBlockSize = 1024;

// The five components in header order; the flag bit of each is its index.
enum OtaComponentIndex : int {
  kOtaBmbAppA = 0,
  kOtaBmbAppB = 1,
  kOtaBmbFpga = 2,
  kOtaTmbFpga = 3,
  kOtaTmbParam = 4,
  kOtaComponentCount = 5,
};

// "BMB_APP_A", "BMB_APP_B", "BMB_FPGA", "TMB_FPGA", "TMB_PARAM"; "" for other indexes.
const char* OtaComponentName(int index);
// The type byte the lidar expects: TMB_FPGA 0, BMB_FPGA 1, the applications 2, TMB_PARAM 3.
uint8_t OtaComponentType(int index);

struct OtaComponentRef {
  uint32_t offset = 0;  // from the end of the header
  uint32_t size = 0;
  bool present = false;
};

struct OtaPackageHeader {
  uint32_t total_size = 0;  // logged only; never compared with the file length
  uint8_t flags = 0;
  std::array<OtaComponentRef, kOtaComponentCount> components{};
};

// One entry of the list of components to send.
struct OtaComponent {
  std::string name;
  uint8_t type = 0;
  uint32_t offset = 0;
  uint32_t size = 0;
  bool present = false;
};

enum class OtaParseResult { kOk, kTooSmall, kBadMagic };

// Parses the header of `data` (`len` bytes) into `out`, which is zeroed first. A bad
// magic appends "Invalid OTA package magic" to `info` (when given).
OtaParseResult ParseOtaPackageHeader(const uint8_t* data, size_t len, OtaPackageHeader& out,
                                     std::vector<std::string>* info = nullptr);

// "Marvo OTA package parsed: flags=0x<flags in decimal>, total_size=<decimal>". The flags
// print in decimal behind "0x"; users' scripts match the line as it has always been.
std::string OtaParsedLine(const OtaPackageHeader& header);

// The components to send, in order: the application of the partition not running
// (`partition` 0 = A runs, so BMB_APP_B; anything else, BMB_APP_A), then BMB_FPGA,
// TMB_FPGA, TMB_PARAM; each only when present.
std::vector<OtaComponent> BuildOtaUpgradeList(const OtaPackageHeader& header, uint32_t partition);

// The bytes of `component` in the package. Empty, with "Component <name> data out of
// range" appended to `info`, when the data do not lie inside the package. An FPGA image
// larger than one block loses its first 1024 bytes (a header the lidar does not want).
std::vector<uint8_t> ExtractOtaComponent(const uint8_t* data, size_t len, const OtaComponent& component,
                                         std::vector<std::string>* info = nullptr);

// Blocks of 1024 bytes, the last one partial: ceil(bytes / 1024).
uint32_t OtaBlocks(size_t bytes);

}  // namespace varkel
