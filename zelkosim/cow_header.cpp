#include "cow_header.h"

#include <cerrno>
#include <cstring>

#include "sim_error.h"

namespace orv::zelkosim {

namespace {

// Byte offsets of the header's fields (host byte order, like the map).
constexpr size_t kLayoutAt = 8;
constexpr size_t kUseAt = 12;
constexpr size_t kMinorAt = 16;
constexpr size_t kVolumeAt = 24;
constexpr size_t kBlocksAt = 32;
constexpr size_t kMapAt = 40;
constexpr size_t kFileAt = 48;
constexpr size_t kChangedAt = 56;

template <typename T>
void Put(std::string& out, size_t at, T value) {
  std::memcpy(&out[at], &value, sizeof value);
}

template <typename T>
T Get(const std::string& in, size_t at) {
  T value;
  std::memcpy(&value, &in[at], sizeof value);
  return value;
}

}  // namespace

uint64_t CowHeader::BlocksFor(uint64_t volumeBytes) { return (volumeBytes + kBlockSize - 1) / kBlockSize; }

uint64_t CowHeader::RegionBytes(uint64_t volumeBytes) {
  uint64_t bytes = kSize + BlocksFor(volumeBytes) * sizeof(uint64_t);
  return (bytes + kBlockSize - 1) / kBlockSize * kBlockSize;
}

uint64_t CowHeader::MinimumMib(uint64_t volumeBytes) { return (RegionBytes(volumeBytes) + (1 << 20) - 1) >> 20; }

uint64_t CowHeader::CapacityBlocks(uint64_t fileBytes, uint64_t volumeBytes) {
  uint64_t region = RegionBytes(volumeBytes);
  return fileBytes > region ? (fileBytes - region) / kBlockSize : 0;
}

std::string CowHeader::encode() const {
  std::string out(kSize, '\0');
  std::memcpy(&out[0], kMagic, sizeof kMagic);
  Put(out, kLayoutAt, kLayout);
  Put(out, kUseAt, use);
  Put(out, kMinorAt, minor);
  Put(out, kVolumeAt, volume_bytes);
  Put(out, kBlocksAt, blocks());
  Put(out, kMapAt, kSize);
  Put(out, kFileAt, file_bytes);
  Put(out, kChangedAt, changed_blocks);
  return out;
}

CowHeader CowHeader::Decode(const std::string& bytes) {
  if (bytes.size() < kSize) throw SimError(EINVAL, "COW header is short: " + std::to_string(bytes.size()) + " bytes");
  if (std::memcmp(bytes.data(), kMagic, sizeof kMagic) != 0) throw SimError(EINVAL, "not a COW file (bad magic)");
  if (Get<uint32_t>(bytes, kLayoutAt) != kLayout) {
    throw SimError(EINVAL, "COW file layout " + std::to_string(Get<uint32_t>(bytes, kLayoutAt)) + " is not supported");
  }
  CowHeader header;
  header.use = Get<uint32_t>(bytes, kUseAt);
  header.minor = Get<uint32_t>(bytes, kMinorAt);
  header.volume_bytes = Get<uint64_t>(bytes, kVolumeAt);
  header.file_bytes = Get<uint64_t>(bytes, kFileAt);
  header.changed_blocks = Get<uint64_t>(bytes, kChangedAt);
  if (Get<uint64_t>(bytes, kBlocksAt) != header.blocks() || Get<uint64_t>(bytes, kMapAt) != kSize) {
    throw SimError(EINVAL, "COW header is inconsistent (block count or map offset)");
  }
  return header;
}

}  // namespace orv::zelkosim
