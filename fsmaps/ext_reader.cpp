#include "fsmaps/ext_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "fsmaps/byte_order.h"

namespace orv {

namespace {

constexpr uint64_t kSuperblockOffset = 1024;
constexpr uint32_t kCompatSparseSuper2 = 0x200;
constexpr uint32_t kIncompatMetaBg = 0x10;
constexpr uint32_t kIncompat64Bit = 0x80;
constexpr uint32_t kRoCompatSparseSuper = 0x1;
constexpr uint32_t kRoCompatBigalloc = 0x200;
constexpr uint16_t kGroupBlockUninit = 0x0002;

bool IsPowerOf(uint64_t value, uint64_t base) {
  while (value > 1 && value % base == 0) value /= base;
  return value == 1;
}

}  // namespace

ExtReader::~ExtReader() = default;

bool ExtReader::Probe(BlockSource& source) {
  uint8_t magic[2];
  if (source.ReadAt(kMagicOffset, magic, sizeof(magic)) != BlockSource::Result::kOk) return false;
  return Le16(magic) == kMagic;
}

bool ExtReader::Open() {
  if (!Read(kSuperblockOffset, super_, sizeof(super_), "ext superblock")) return false;
  if (Le16(super_ + 56) != kMagic) {
    ReportFsError(EUCLEAN, "No ext superblock magic\n");
    return false;
  }
  uint32_t logBlockSize = Le32(super_ + 24);
  uint32_t logClusterSize = Le32(super_ + 28);
  uint32_t compat = Le32(super_ + 92);
  uint32_t incompat = Le32(super_ + 96);
  uint32_t roCompat = Le32(super_ + 100);
  if (logBlockSize > 6) {
    ReportFsError(EUCLEAN, "Corrupt ext superblock: block size 1024 << %u\n", logBlockSize);
    return false;
  }
  fsBlockSize_ = uint64_t{1024} << logBlockSize;
  superblockBlock_ = kSuperblockOffset / fsBlockSize_;
  blocksTotal_ = Le32(super_ + 4);
  firstDataBlock_ = Le32(super_ + 20);
  blocksPerGroup_ = Le32(super_ + 32);
  if ((incompat & kIncompat64Bit) != 0 && Le32(super_ + 0x150) != 0) {
    ReportFsError(EFBIG, "ext file systems of 2^32 blocks or more are not supported\n");
    return false;
  }
  if (blocksTotal_ == 0 || firstDataBlock_ >= blocksTotal_) {
    ReportFsError(EUCLEAN, "Corrupt ext superblock: %llu blocks, first data block %llu\n",
                  static_cast<unsigned long long>(blocksTotal_), static_cast<unsigned long long>(firstDataBlock_));
    return false;
  }
  if ((roCompat & kRoCompatBigalloc) != 0) {
    // One bitmap bit per cluster: the bitmap's unit becomes the cluster.
    if (logClusterSize < logBlockSize || logClusterSize - logBlockSize > 16 || firstDataBlock_ != 0) {
      ReportFsError(EUCLEAN, "Corrupt ext superblock: cluster size 1024 << %u\n", logClusterSize);
      return false;
    }
    clusterRatio_ = uint64_t{1} << (logClusterSize - logBlockSize);
    unitsPerGroup_ = Le32(super_ + 36);
    blocksPerGroup_ = unitsPerGroup_ * clusterRatio_;
  } else {
    // Without bigalloc the first group starts with the superblock's block; any other
    // start would put the groups and the descriptor table over each other.
    if (firstDataBlock_ != superblockBlock_) {
      ReportFsError(EUCLEAN, "Corrupt ext superblock: first data block %llu with blocks of %llu bytes\n",
                    static_cast<unsigned long long>(firstDataBlock_), static_cast<unsigned long long>(fsBlockSize_));
      return false;
    }
    unitsPerGroup_ = blocksPerGroup_;
  }
  if (unitsPerGroup_ == 0 || unitsPerGroup_ > fsBlockSize_ * 8) {
    ReportFsError(EUCLEAN, "Corrupt ext superblock: %llu blocks per group\n",
                  static_cast<unsigned long long>(blocksPerGroup_));
    return false;
  }
  if ((incompat & kIncompat64Bit) != 0) {
    descriptorSize_ = Le16(super_ + 254);
    if (descriptorSize_ < 32 || descriptorSize_ > fsBlockSize_ || !IsPowerOfTwo(descriptorSize_)) {
      ReportFsError(EUCLEAN, "Corrupt ext superblock: descriptor size %llu\n",
                    static_cast<unsigned long long>(descriptorSize_));
      return false;
    }
  }
  metaBg_ = (incompat & kIncompatMetaBg) != 0;
  firstMetaBg_ = Le32(super_ + 260);
  sparseSuper_ = (roCompat & kRoCompatSparseSuper) != 0;
  sparseSuper2_ = (compat & kCompatSparseSuper2) != 0;
  backupGroups_[0] = Le32(super_ + 0x24C);
  backupGroups_[1] = Le32(super_ + 0x250);
  groups_ = (blocksTotal_ - firstDataBlock_ + blocksPerGroup_ - 1) / blocksPerGroup_;
  blockSize_ = fsBlockSize_ * clusterRatio_;
  blockCount_ = blocksTotal_ / clusterRatio_;
  return true;
}

bool ExtReader::HasSuperblockBackup(uint64_t group) const {
  if (group == 0) return true;
  if (sparseSuper2_) return group == backupGroups_[0] || group == backupGroups_[1];
  if (group <= 1 || !sparseSuper_) return true;
  if ((group & 1) == 0) return false;
  return IsPowerOf(group, 3) || IsPowerOf(group, 5) || IsPowerOf(group, 7);
}

uint64_t ExtReader::DescriptorBlock(uint64_t group) const {
  uint64_t perBlock = fsBlockSize_ / descriptorSize_;
  uint64_t metaGroup = group / perBlock;
  if (!metaBg_ || metaGroup < firstMetaBg_) return superblockBlock_ + 1 + metaGroup;
  // meta_bg: each run of perBlock groups keeps its descriptor block in its own first
  // group, right after that group's superblock backup. Group 0 starts at block 0 when
  // the first data block is 0, but its superblock is still in block 1 with 1 KiB blocks.
  uint64_t first = metaGroup * perBlock;
  uint64_t groupStart = firstDataBlock_ + first * blocksPerGroup_;
  if (first == 0) groupStart = std::max(groupStart, superblockBlock_);
  return groupStart + (HasSuperblockBackup(first) ? 1 : 0);
}

const uint8_t* ExtReader::Descriptor(uint64_t group) {
  uint64_t block = DescriptorBlock(group);
  if (block != cachedDescriptorBlock_) {
    cachedDescriptorBlock_ = UINT64_MAX;
    descriptorBlock_.resize(fsBlockSize_);
    BlockSource::Result result = block >= blocksTotal_
                                     ? BlockSource::Result::kSeekFailed
                                     : source_.ReadAt(block * fsBlockSize_, descriptorBlock_.data(), fsBlockSize_);
    if (result == BlockSource::Result::kSeekFailed) {
      ReportFsError(errno, "Can't seek to data block\n");
      return nullptr;
    }
    if (result != BlockSource::Result::kOk) {
      ReportFsError(errno, "Can't read bgd table\n");
      return nullptr;
    }
    cachedDescriptorBlock_ = block;
  }
  return descriptorBlock_.data() + (group % (fsBlockSize_ / descriptorSize_)) * descriptorSize_;
}

bool ExtReader::Fill(PieceBitmap& piece) {
  // The descriptor table is read block by block as the walk reaches it, but a table
  // that cannot be on the device is refused before any bitmap is read.
  uint64_t perBlock = fsBlockSize_ / descriptorSize_;
  uint64_t tableGroups = metaBg_ ? std::min(groups_, firstMetaBg_ * perBlock) : groups_;
  uint64_t tableStart = (superblockBlock_ + 1) * fsBlockSize_;
  uint64_t size = source_.Size();
  if (size > 0 && tableStart > size) {
    ReportFsError(EINVAL, "Can't seek to data block\n");
    return false;
  }
  if (size > 0 && tableGroups * descriptorSize_ > size - tableStart) {
    ReportFsError(EIO, "Can't read bgd table\n");
    return false;
  }
  uint64_t startInBlocks = piece.first() * clusterRatio_;
  uint64_t firstGroup = startInBlocks > firstDataBlock_ ? (startInBlocks - firstDataBlock_) / blocksPerGroup_ : 0;
  groupBitmap_.resize((unitsPerGroup_ + 7) / 8);
  for (uint64_t group = firstGroup; group < groups_; ++group) {
    uint64_t groupFirstUnit = (firstDataBlock_ + group * blocksPerGroup_) / clusterRatio_;
    if (groupFirstUnit >= piece.end()) break;
    const uint8_t* descriptor = Descriptor(group);
    if (descriptor == nullptr) return false;
    if ((Le16(descriptor + 18) & kGroupBlockUninit) != 0) continue;
    if (descriptorSize_ >= 64 && Le32(descriptor + 0x20) != 0) {
      ReportFsError(EFBIG, "ext group %llu has its block bitmap beyond block 2^32, which is not supported\n",
                    static_cast<unsigned long long>(group));
      return false;
    }
    uint64_t bitmapBlock = Le32(descriptor);
    if (bitmapBlock >= blocksTotal_) {
      ReportFsError(EUCLEAN, "Can't seek to bitmap\n");
      return false;
    }
    BlockSource::Result result = source_.ReadAt(bitmapBlock * fsBlockSize_, groupBitmap_.data(), groupBitmap_.size());
    if (result == BlockSource::Result::kSeekFailed) {
      ReportFsError(errno, "Can't seek to bitmap\n");
      return false;
    }
    if (result != BlockSource::Result::kOk) {
      ReportFsError(errno, "Can't read bitmap\n");
      return false;
    }
    uint64_t units = std::min(unitsPerGroup_, blockCount_ - groupFirstUnit);
    piece.CopyLsbFirst(groupBitmap_.data(), 0, groupFirstUnit, units);
  }
  return true;
}

bool ExtReader::ReadVolume(std::vector<uint8_t>* bitmap) {
  bitmap->assign((blockCount_ + 7) / 8, 0);
  PieceBitmap piece(bitmap->data(), bitmap->size(), 0, blockCount_);
  return Fill(piece);
}

int64_t GetExtVolumeBitmap(const std::string& devicePath, uint64_t& blockSize, uint64_t& blockCount,
                           std::vector<uint8_t>& bitmap) {
  FileBlockSource source(devicePath);
  if (!source.IsOpen()) {
    ReportOpenError(devicePath, source.OpenError());
    return -1;
  }
  if (!ExtReader::Probe(source)) return 0;
  ExtReader reader(source);
  if (!reader.Open()) return -1;
  blockSize = reader.blockSize();
  blockCount = reader.blockCount();
  if (!reader.ReadVolume(&bitmap)) return -1;
  return static_cast<int64_t>(blockCount);
}

}  // namespace orv
