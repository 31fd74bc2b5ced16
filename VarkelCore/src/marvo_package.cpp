#include "marvo_package.h"

#include <cstring>

namespace varkel {
namespace {

constexpr char kMagic[4] = {'Q', 'R', 'N', 'A'};
constexpr size_t kFirstRefAt = 12;  // offset/size pairs follow the flags and 3 reserved bytes

uint32_t ReadU32LE(const uint8_t* at) {
  return static_cast<uint32_t>(at[0]) | (static_cast<uint32_t>(at[1]) << 8) | (static_cast<uint32_t>(at[2]) << 16) |
         (static_cast<uint32_t>(at[3]) << 24);
}

bool IsFpga(const std::string& name) {
  return name == "BMB_FPGA" || name == "TMB_FPGA";
}

}  // namespace

const char* OtaComponentName(int index) {
  static const char* const kNames[kOtaComponentCount] = {"BMB_APP_A", "BMB_APP_B", "BMB_FPGA", "TMB_FPGA", "TMB_PARAM"};
  return index >= 0 && index < kOtaComponentCount ? kNames[index] : "";
}

uint8_t OtaComponentType(int index) {
  switch (index) {
    case kOtaTmbFpga:
      return 0;
    case kOtaBmbFpga:
      return 1;
    case kOtaBmbAppA:
    case kOtaBmbAppB:
      return 2;
    case kOtaTmbParam:
      return 3;
    default:
      return 0xFF;
  }
}

OtaParseResult ParseOtaPackageHeader(const uint8_t* data, size_t len, OtaPackageHeader& out,
                                     std::vector<std::string>* info) {
  out = OtaPackageHeader{};
  if (data == nullptr || len < kOtaHeaderSize) return OtaParseResult::kTooSmall;
  if (std::memcmp(data, kMagic, sizeof(kMagic)) != 0) {
    if (info) info->push_back("Invalid OTA package magic");
    return OtaParseResult::kBadMagic;
  }
  out.total_size = ReadU32LE(data + 4);
  out.flags = data[8];
  for (int i = 0; i < kOtaComponentCount; ++i) {
    if ((out.flags & (1u << i)) == 0) continue;  // absent: offset and size stay 0
    const uint8_t* ref = data + kFirstRefAt + 8 * static_cast<size_t>(i);
    out.components[static_cast<size_t>(i)] = OtaComponentRef{ReadU32LE(ref), ReadU32LE(ref + 4), true};
  }
  return OtaParseResult::kOk;
}

std::string OtaParsedLine(const OtaPackageHeader& header) {
  return "Marvo OTA package parsed: flags=0x" + std::to_string(static_cast<unsigned>(header.flags)) +
         ", total_size=" + std::to_string(header.total_size);
}

std::vector<OtaComponent> BuildOtaUpgradeList(const OtaPackageHeader& header, uint32_t partition) {
  // The running partition's own application is never sent: the lidar writes the other one.
  const int app = partition == 0 ? kOtaBmbAppB : kOtaBmbAppA;
  std::vector<OtaComponent> list;
  for (int index :
       {app, static_cast<int>(kOtaBmbFpga), static_cast<int>(kOtaTmbFpga), static_cast<int>(kOtaTmbParam)}) {
    const OtaComponentRef& ref = header.components[static_cast<size_t>(index)];
    if (!ref.present) continue;
    list.push_back(OtaComponent{OtaComponentName(index), OtaComponentType(index), ref.offset, ref.size, true});
  }
  return list;
}

std::vector<uint8_t> ExtractOtaComponent(const uint8_t* data, size_t len, const OtaComponent& component,
                                         std::vector<std::string>* info) {
  // The bounds test is made in 32-bit arithmetic, so an offset near 2^32 wraps round to
  // the start of the package and passes; packages in the field rely on that. The second
  // test (without wrapping, from the wrapped start) keeps every read inside the buffer
  // when a size near 2^32 wraps the end instead.
  const uint32_t start = static_cast<uint32_t>(kOtaHeaderSize) + component.offset;
  const uint32_t end32 = start + component.size;
  const uint64_t end = static_cast<uint64_t>(start) + component.size;
  if (data == nullptr || end32 > len || end > len) {
    if (info) info->push_back("Component " + component.name + " data out of range");
    return {};
  }
  uint64_t from = start;
  if (IsFpga(component.name) && component.size > kOtaBlockSize) from += kOtaBlockSize;
  return std::vector<uint8_t>(data + from, data + end);
}

uint32_t OtaBlocks(size_t bytes) {
  return static_cast<uint32_t>((bytes + kOtaBlockSize - 1) / kOtaBlockSize);
}

}  // namespace varkel
