#ifndef ORV_FSMAPS_FAT_READER_H_
#define ORV_FSMAPS_FAT_READER_H_

#include <cstdint>
#include <vector>

#include "fsmaps/fs_reader.h"

namespace orv {

// Used blocks of FAT32: the reserved sectors (boot sector, FSInfo, backup boot
// sector) and every FAT are used; a data cluster is used when its FAT entry is not 0
// (free). Entries are read one by one, chains are never followed, so a FAT with loops
// costs no more than any other.
//
// The bitmap's unit is the cluster when the data area starts on a cluster boundary
// (how formatters lay out a volume by default), and the sector otherwise, so that a
// block number times the unit is always the block's byte offset on the device. The
// tail of the volume too short for a whole cluster (or unit) is not counted. The FAT
// read is the active one: FAT 0 while the FATs are mirrored, else the one the
// extended flags name.
class FatReader : public FsReader {
 public:
  explicit FatReader(BlockSource& source) : FsReader(source) {}
  ~FatReader() override;

  // A boot sector with the 0x55AA signature whose BPB is FAT32's: no 16-bit FAT size,
  // no fixed root directory, a 32-bit FAT size.
  static bool Probe(BlockSource& source);

  const char* Name() const override { return "FAT32"; }
  bool Open() override;
  bool Fill(PieceBitmap& piece) override;

 private:
  uint64_t fatOffset_ = 0;        // byte offset of the active FAT
  uint64_t dataStartBlock_ = 0;   // first block of cluster 2
  uint64_t blocksPerCluster_ = 1;
  uint64_t clusterCount_ = 0;
  std::vector<uint8_t> entries_;
};

}  // namespace orv

#endif  // ORV_FSMAPS_FAT_READER_H_
