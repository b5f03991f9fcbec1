#include "extent_list.h"

#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "cow_header.h"
#include "sim_error.h"

namespace orv::zelkosim {

namespace {

constexpr uint32_t kUnusable = FIEMAP_EXTENT_UNKNOWN | FIEMAP_EXTENT_DELALLOC | FIEMAP_EXTENT_ENCODED |
                               FIEMAP_EXTENT_DATA_ENCRYPTED | FIEMAP_EXTENT_NOT_ALIGNED |
                               FIEMAP_EXTENT_DATA_INLINE | FIEMAP_EXTENT_DATA_TAIL | FIEMAP_EXTENT_UNWRITTEN;
constexpr uint32_t kBatch = 256;

void Append(std::vector<Extent>& out, Extent e) {
  if (!out.empty()) {
    Extent& last = out.back();
    if (last.logical + last.length == e.logical && last.physical + last.length == e.physical) {
      last.length += e.length;
      return;
    }
  }
  out.push_back(e);
}

// Returns false when the file system has no FIEMAP.
bool ByFiemap(int fd, uint64_t length, const std::string& path, std::vector<Extent>& out) {
  size_t bytes = sizeof(struct fiemap) + kBatch * sizeof(struct fiemap_extent);
  std::unique_ptr<struct fiemap, decltype(&std::free)> map(static_cast<struct fiemap*>(std::calloc(1, bytes)),
                                                          &std::free);
  if (!map) throw SimError(ENOMEM, "no memory to map " + path);
  uint64_t start = 0;
  while (start < length) {
    std::memset(map.get(), 0, bytes);
    map->fm_start = start;
    map->fm_length = length - start;
    map->fm_flags = FIEMAP_FLAG_SYNC;
    map->fm_extent_count = kBatch;
    if (::ioctl(fd, FS_IOC_FIEMAP, map.get()) != 0) {
      if (errno == EOPNOTSUPP || errno == ENOTTY) return false;
      SimError::Raise(errno, "cannot map the blocks of " + path);
    }
    if (map->fm_mapped_extents == 0) break;
    bool last = false;
    for (uint32_t i = 0; i < map->fm_mapped_extents; ++i) {
      const struct fiemap_extent& fe = map->fm_extents[i];
      if (fe.fe_flags & kUnusable) {
        throw SimError(EOPNOTSUPP, path + " has data the simulator cannot place on the device (extent flags " +
                                       std::to_string(fe.fe_flags) + ")");
      }
      Append(out, Extent{fe.fe_logical, fe.fe_physical, fe.fe_length});
      start = fe.fe_logical + fe.fe_length;
      last = fe.fe_flags & FIEMAP_EXTENT_LAST;
    }
    if (last) break;
  }
  return true;
}

void ByFibmap(int fd, uint64_t length, const std::string& path, std::vector<Extent>& out) {
  int blockSize = 0;
  if (::ioctl(fd, FIGETBSZ, &blockSize) != 0 || blockSize <= 0) {
    SimError::Raise(errno ? errno : EINVAL, "cannot learn the block size of " + path);
  }
  uint64_t size = static_cast<uint64_t>(blockSize);
  for (uint64_t block = 0; block * size < length; ++block) {
    int number = static_cast<int>(block);
    if (::ioctl(fd, FIBMAP, &number) != 0) SimError::Raise(errno, "cannot map the blocks of " + path);
    if (number == 0) throw SimError(EOPNOTSUPP, path + " has a hole at block " + std::to_string(block));
    Append(out, Extent{block * size, static_cast<uint64_t>(static_cast<unsigned>(number)) * size, size});
  }
}

}  // namespace

ExtentList ExtentList::OfFile(int fd, uint64_t length, const std::string& path) {
  std::vector<Extent> out;
  if (!ByFiemap(fd, length, path, out)) {
    out.clear();
    ByFibmap(fd, length, path, out);
  }
  uint64_t covered = 0;
  for (const Extent& e : out) {
    if (e.logical != covered) {
      throw SimError(EOPNOTSUPP, path + " has a hole at byte " + std::to_string(covered));
    }
    covered += e.length;
  }
  if (covered < length) throw SimError(EOPNOTSUPP, path + " is not allocated up to byte " + std::to_string(length));
  return ExtentList(std::move(out));
}

void ExtentList::markCoveredBlocks(ChangeMap& blocks) const {
  constexpr uint64_t kBlock = CowHeader::kBlockSize;
  for (const Extent& e : extents_) {
    uint64_t first = (e.physical + kBlock - 1) / kBlock;
    uint64_t end = (e.physical + e.length) / kBlock;
    for (uint64_t block = first; block < end && block < blocks.blocks(); ++block) blocks.mark(block);
  }
}

}  // namespace orv::zelkosim
