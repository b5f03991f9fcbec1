#ifndef ORV_FSMAPS_XFS_READER_H_
#define ORV_FSMAPS_XFS_READER_H_

#include <cstdint>
#include <vector>

#include "fsmaps/fs_reader.h"

namespace orv {

// Used blocks of XFS: every block that no allocation group's free-space B+tree by
// block number (the bno btree, rooted in the AG's AGF) lists as free and that is not
// on the AG's free list (AGFL), whose blocks wait for btree growth and hold nothing.
// The btrees' own blocks count as used. Block numbers are linear: AG a's block b is a * agblocks + b, so block n
// starts at byte n * blockSize. Both the v4 btree block header and the v5 (CRC) one
// are read; checksums are not verified, but magic, level, record counts, owner and
// self-address are, and a block met twice ends the walk as corrupt.
class XfsReader : public FsReader {
 public:
  explicit XfsReader(BlockSource& source) : FsReader(source) {}
  ~XfsReader() override;

  // "XFSB" at byte 0.
  static bool Probe(BlockSource& source);

  const char* Name() const override { return "XFS"; }
  bool Open() override;
  bool Fill(PieceBitmap& piece) override;

 private:
  bool WalkFreeSpace(uint32_t ag, PieceBitmap& piece);
  // Blocks on the AG's free list wait for btree growth and hold nothing: free too.
  bool MarkFreeList(uint32_t ag, const uint8_t* agf, uint32_t agLength, PieceBitmap& piece);

  bool v5_ = false;
  uint32_t agBlocks_ = 0;
  uint32_t agCount_ = 0;
  uint32_t sectorSize_ = 0;
  std::vector<uint8_t> block_;
};

}  // namespace orv

#endif  // ORV_FSMAPS_XFS_READER_H_
