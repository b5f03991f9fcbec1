#ifndef ORV_FSMAPS_EXT_READER_H_
#define ORV_FSMAPS_EXT_READER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "fsmaps/fs_reader.h"

namespace orv {

// Used blocks of ext2, ext3 and ext4, from the block bitmap of every block group.
//
// Read from the superblock (1024 bytes at byte 1024): the low words of the block
// count, first data block, block size, blocks per group, the 64-bit feature with its
// descriptor size, and, so that such volumes are not misread, meta_bg (descriptor
// blocks spread over the groups) and bigalloc (one bitmap bit per cluster: the
// cluster is then the bitmap's unit). A group flagged BLOCK_UNINIT reads as entirely
// unused without touching the disk: its few metadata blocks are rebuilt by the file
// system and need no copy. Volumes of 2^32 blocks or more are refused.
class ExtReader : public FsReader {
 public:
  static constexpr uint16_t kMagic = 0xEF53;
  static constexpr uint64_t kMagicOffset = 1080;

  explicit ExtReader(BlockSource& source) : FsReader(source) {}
  ~ExtReader() override;

  // The magic 0xEF53 at byte 1080.
  static bool Probe(BlockSource& source);

  const char* Name() const override { return "ext"; }
  bool Open() override;
  bool Fill(PieceBitmap& piece) override;
  // The whole volume at once: ceiling(blockCount / 8) bytes, bit b = block b.
  bool ReadVolume(std::vector<uint8_t>* bitmap);

 private:
  bool HasSuperblockBackup(uint64_t group) const;
  uint64_t DescriptorBlock(uint64_t group) const;
  // The descriptor of `group`, from a one-block cache of the descriptor table.
  const uint8_t* Descriptor(uint64_t group);

  uint8_t super_[1024] = {};
  uint64_t fsBlockSize_ = 0;    // the file system's block size
  uint64_t blocksTotal_ = 0;    // in file-system blocks
  uint64_t firstDataBlock_ = 0;
  // The block holding the superblock: 1 with 1 KiB blocks, else 0. The descriptor
  // table follows it, whatever the first data block says (bigalloc makes that 0 even
  // with 1 KiB blocks).
  uint64_t superblockBlock_ = 0;
  uint64_t blocksPerGroup_ = 0;
  uint64_t unitsPerGroup_ = 0;  // bitmap bits per group: blocks, or clusters with bigalloc
  uint64_t clusterRatio_ = 1;   // file-system blocks per bitmap unit
  uint64_t descriptorSize_ = 32;
  uint64_t groups_ = 0;
  bool metaBg_ = false;
  uint64_t firstMetaBg_ = 0;
  bool sparseSuper_ = false;
  bool sparseSuper2_ = false;
  uint32_t backupGroups_[2] = {};
  std::vector<uint8_t> descriptorBlock_;
  uint64_t cachedDescriptorBlock_ = UINT64_MAX;
  std::vector<uint8_t> groupBitmap_;
};

// The whole-volume form for callers that want one bitmap of an ext device: returns
// the block count (bitmap resized to ceiling(blockCount / 8) bytes), 0 when the device
// is not ext, -1 on error.
int64_t GetExtVolumeBitmap(const std::string& devicePath, uint64_t& blockSize, uint64_t& blockCount,
                           std::vector<uint8_t>& bitmap);

}  // namespace orv

#endif  // ORV_FSMAPS_EXT_READER_H_
