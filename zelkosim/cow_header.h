#ifndef ORV_ZELKOSIM_COW_HEADER_H_
#define ORV_ZELKOSIM_COW_HEADER_H_

#include <cstdint>
#include <string>

namespace orv::zelkosim {

// The first 4096 bytes of a COW file, and the file's layout: the header, then one
// unsigned 64-bit map entry per 4096-byte block of the volume, then room for the blocks
// that a snapshot copies out before they are overwritten.
struct CowHeader {
  static constexpr uint64_t kSize = 4096;
  static constexpr uint64_t kBlockSize = 4096;
  static constexpr char kMagic[8] = {'Z', 'E', 'L', 'K', 'O', 'C', 'O', 'W'};
  static constexpr uint32_t kLayout = 1;
  // What the file is used for at the time the header was last written.
  static constexpr uint32_t kSnapshot = 1;
  static constexpr uint32_t kIncremental = 2;
  static constexpr uint32_t kRetired = 3;  // a former tracker's final map, for the agent to merge

  uint32_t use = kSnapshot;
  uint32_t minor = 0;
  uint64_t volume_bytes = 0;
  uint64_t file_bytes = 0;
  uint64_t changed_blocks = 0;

  virtual ~CowHeader() = default;

  // Blocks of a volume of `volumeBytes` (a partial last block counts).
  static uint64_t BlocksFor(uint64_t volumeBytes);
  // Bytes of header and map together, rounded up to whole 4096-byte blocks.
  static uint64_t RegionBytes(uint64_t volumeBytes);
  // The smallest COW file in MiB that holds the header and the map.
  static uint64_t MinimumMib(uint64_t volumeBytes);
  // How many copied-out blocks a COW file of `fileBytes` has room for.
  static uint64_t CapacityBlocks(uint64_t fileBytes, uint64_t volumeBytes);

  uint64_t blocks() const { return BlocksFor(volume_bytes); }
  std::string encode() const;  // exactly kSize bytes
  // Decodes a header; anything that is not one of ours throws SimError(EINVAL).
  static CowHeader Decode(const std::string& bytes);
};

}  // namespace orv::zelkosim

#endif  // ORV_ZELKOSIM_COW_HEADER_H_
