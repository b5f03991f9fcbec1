#ifndef ORV_FSMAPS_EXTENT_MAP_H_
#define ORV_FSMAPS_EXTENT_MAP_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "fsmaps/block_source.h"

namespace orv {

// Where a file's data lies on the device, as consecutive runs of units (NTFS
// clusters, HFS+ allocation blocks) in file order. Used to read the allocation
// bitmaps that NTFS and HFS+ keep in files of their own.
class ExtentMap {
 public:
  // `deviceUnits` bounds every run: nothing may lie past the end of the volume.
  ExtentMap(uint64_t unitSize, uint64_t deviceUnits) : unitSize_(unitSize), deviceUnits_(deviceUnits) {}
  virtual ~ExtentMap();

  // Appends `count` units at device unit `deviceUnit`, or a hole of `count` units
  // that reads as zeros. False when the run is empty or leaves the volume.
  bool Append(uint64_t count, uint64_t deviceUnit);
  bool AppendHole(uint64_t count);

  uint64_t units() const { return units_; }
  uint64_t bytes() const { return units_ * unitSize_; }

  // Reads the file's bytes [offset, offset + length). Bytes at or past
  // `validBytes` (NTFS's initialised size) read as zeros. Reports and returns false on
  // a read failure or a range past the mapped units.
  bool Read(BlockSource& source, uint64_t offset, uint8_t* buffer, size_t length, uint64_t validBytes) const;

 private:
  struct Run {
    uint64_t fileUnit;
    uint64_t count;
    uint64_t deviceUnit;
    bool hole;
  };

  uint64_t unitSize_;
  uint64_t deviceUnits_;
  uint64_t units_ = 0;
  std::vector<Run> runs_;
};

}  // namespace orv

#endif  // ORV_FSMAPS_EXTENT_MAP_H_
