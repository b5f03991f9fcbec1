#ifndef ORV_ZELKOSIM_COW_FILE_H_
#define ORV_ZELKOSIM_COW_FILE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "change_map.h"
#include "cow_header.h"
#include "extent_list.h"

namespace orv::zelkosim {

// A COW file on the tracked volume. It is written through the file system only once,
// when it is made; after that the simulator, like a driver, writes its header and map
// straight to the file's blocks on the device and drops the file's cached pages, so
// that readers through the file system (the agent) see what it wrote.
class CowFile {
 public:
  explicit CowFile(std::string path) : path_(std::move(path)) {}
  virtual ~CowFile() = default;

  const std::string& path() const { return path_; }

  // Creates the file (replacing any old one), allocates `fileBytes` with fallocate so a
  // full volume fails with ENOSPC, zero-fills it so that its extents are real, and writes
  // `header`. On failure the file is removed again.
  void create(uint64_t fileBytes, const CowHeader& header) const;
  // Reads the header through the file system.
  CowHeader readHeader() const;
  // Reads the map through the file system (as the agent does).
  ChangeMap readMap(const CowHeader& header) const;
  // Where the file's first `length` bytes lie on the device.
  ExtentList extents(uint64_t length) const;
  // Writes `header` and `map` to the file's blocks through `deviceFds` (the device, and any
  // image that must hold the same bytes at the same offsets), then drops the file's pages.
  void writeRegion(const CowHeader& header, const ChangeMap& map, const std::vector<int>& deviceFds) const;

 private:
  std::string path_;
};

}  // namespace orv::zelkosim

#endif  // ORV_ZELKOSIM_COW_FILE_H_
