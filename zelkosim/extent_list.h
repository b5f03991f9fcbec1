#ifndef ORV_ZELKOSIM_EXTENT_LIST_H_
#define ORV_ZELKOSIM_EXTENT_LIST_H_

#include <cstdint>
#include <string>
#include <vector>

#include "change_map.h"

namespace orv::zelkosim {

// A run of a file's bytes and where it lies on the volume's device, in bytes.
struct Extent {
  uint64_t logical = 0;
  uint64_t physical = 0;
  uint64_t length = 0;
};

// Where a file's data lies on its device, as the simulator needs it to write a COW
// file's header and map past the file system, like a driver, and to leave the COW
// file's own blocks out of a change scan.
class ExtentList {
 public:
  explicit ExtentList(std::vector<Extent> extents) : extents_(std::move(extents)) {}
  virtual ~ExtentList() = default;

  // Maps the first `length` bytes of the open file `fd` with FIEMAP, or with FIBMAP where
  // the file system has no FIEMAP (FUSE). Holes, unwritten or unmappable data throw
  // SimError(EOPNOTSUPP): such a file cannot be written behind the file system's back.
  static ExtentList OfFile(int fd, uint64_t length, const std::string& path);

  const std::vector<Extent>& extents() const { return extents_; }
  // Marks the 4096-byte device blocks that lie wholly inside the extents. A block only
  // partly covered also holds other data, so it is left to be compared.
  void markCoveredBlocks(ChangeMap& blocks) const;

 private:
  std::vector<Extent> extents_;
};

}  // namespace orv::zelkosim

#endif  // ORV_ZELKOSIM_EXTENT_LIST_H_
