#ifndef ORV_FSMAPS_HFS_READER_H_
#define ORV_FSMAPS_HFS_READER_H_

#include <cstdint>
#include <vector>

#include "fsmaps/extent_map.h"
#include "fsmaps/fs_reader.h"

namespace orv {

// Used blocks of HFS+ and HFSX: the allocation file, one bit per allocation block,
// most significant bit first, located through the fork data of the volume header (1024
// bytes at byte 1024). The block is the allocation block. Only the eight extents of
// the volume header are read: an allocation file that continues in the extents
// overflow file (possible only after the volume grew in many steps) is refused with
// EOPNOTSUPP rather than read in part. HFS volumes wrapped in an HFS standard volume
// are not recognised.
class HfsReader : public FsReader {
 public:
  explicit HfsReader(BlockSource& source) : FsReader(source) {}
  ~HfsReader() override;

  // "H+" (version 4) or "HX" (version 5) at byte 1024.
  static bool Probe(BlockSource& source);

  const char* Name() const override { return "HFS+"; }
  bool Open() override;
  bool Fill(PieceBitmap& piece) override;

 private:
  ExtentMap allocationFile_{1, 1};
  uint64_t allocationBytes_ = 0;
  std::vector<uint8_t> chunk_;
};

}  // namespace orv

#endif  // ORV_FSMAPS_HFS_READER_H_
