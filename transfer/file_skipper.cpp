#include "transfer/file_skipper.h"

#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <vector>

#include "daemon/logger.h"

namespace orv {

namespace {

// A read-only descriptor closed when it leaves scope.
class ReadOnlyFile {
 public:
  explicit ReadOnlyFile(const std::string& path) : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~ReadOnlyFile() {
    if (fd_ >= 0) close(fd_);
  }
  ReadOnlyFile(const ReadOnlyFile&) = delete;
  ReadOnlyFile& operator=(const ReadOnlyFile&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// statfs's f_type of ext2, ext3 and ext4 alike.
constexpr long kExtMagic = 0xEF53;
// Extents asked for per FIEMAP call.
constexpr uint32_t kExtentsPerCall = 512;
// FIBMAP takes the logical block and answers the physical one as a non-negative int:
// a larger logical block is refused, a larger physical one fails with ERANGE.
constexpr uint64_t kFibmapLimit = static_cast<uint64_t>(INT_MAX) + 1;

bool OnExtFileSystem(int fd) {
  struct statfs info;
  return fstatfs(fd, &info) == 0 && info.f_type == kExtMagic;
}

}  // namespace

FileSkipper::FileSkipper(std::vector<std::string> files, std::string backupId, bool disabled)
    : files_(std::move(files)), backupId_(std::move(backupId)), disabled_(disabled) {}

FileSkipper::~FileSkipper() = default;

bool FileSkipper::IsCowFileBlock(uint64_t block, uint64_t blockSize) {
  const std::vector<Extent>* extents = CowExtents(blockSize);
  if (extents == nullptr) return false;
  for (const Extent& extent : *extents) {
    if (extent.first <= block && block <= extent.second) return true;
  }
  return false;
}

const std::vector<FileSkipper::Extent>* FileSkipper::CowExtents(uint64_t blockSize) {
  if (disabled_) return nullptr;
  if (!built_) {
    built_ = true;
    LogEvent(kDebug, backupId_, "Creating cow file block list...");
    BuildBlockList(blockSize);
    LogEvent(kDebug, backupId_, "Finished creating cow file block list.");
  }
  return &extents_;
}

bool FileSkipper::BlockIdentificationSupported() const {
  for (const std::string& path : files_) {
    ReadOnlyFile file(path);
    if (file.fd() < 0) continue;
    int block = 0;
    if (ioctl(file.fd(), FIBMAP, &block) == 0) return true;
    return !(errno == EINVAL || errno == ENOTTY || errno == EOPNOTSUPP || errno == EPERM || errno == ENOSYS);
  }
  return true;
}

void FileSkipper::BuildBlockList(uint64_t blockSize) {
  if (!BlockIdentificationSupported()) {
    LogEvent(kInfo, backupId_, "File block identification not supported. Not skipping files on backup.");
    return;
  }
  extents_.clear();
  extentCount_ = 0;
  for (const std::string& path : files_) {
    LogEvent(kDebug, backupId_, "Loading block list for %s", path.c_str());
    std::string error = LoadFileBlocks(path, blockSize);
    if (!error.empty()) {
      LogEvent(kError, backupId_, "Unable to skip blocks for %s, error: %s", path.c_str(), error.c_str());
    }
  }
}

std::string FileSkipper::LoadFileBlocks(const std::string& path, uint64_t deviceBlockSize) {
  lastBlock_ = UINT32_MAX;
  ReadOnlyFile file(path);
  if (file.fd() < 0) return "Unable to open: " + path;
  int fsBlockSize = 0;
  if (ioctl(file.fd(), FIGETBSZ, &fsBlockSize) != 0) {
    return "Unable to get blocksize, error: " + std::to_string(errno);
  }
  if (fsBlockSize <= 0 || static_cast<uint64_t>(fsBlockSize) != deviceBlockSize) {
    return "Block size mismatch, device: " + std::to_string(deviceBlockSize) +
           " fibgetbz: " + std::to_string(fsBlockSize);
  }
  struct stat info;
  if (fstat(file.fd(), &info) != 0) return "Unable to stat " + path + " error: " + std::to_string(errno);
  uint64_t size = static_cast<uint64_t>(fsBlockSize);
  uint64_t blocks = (static_cast<uint64_t>(info.st_size) + size - 1) / size;
  uint64_t mapped = 0;
  if (OnExtFileSystem(file.fd())) {
    MapExtents(file.fd(), size, blocks, mapped);
  } else {
    MapBlocks(file.fd(), 0, blocks, mapped);
  }
  LogEvent(kDebug, backupId_, "Skipping %lu out of %lu blocks %lu out of %lu bytes", mapped, blocks, mapped * size,
           blocks * size);
  return "";
}

void FileSkipper::MapBlocks(int fd, uint64_t from, uint64_t to, uint64_t& mapped) {
  for (uint64_t i = from; i < to; ++i) {
    // FIBMAP takes and returns a 32-bit block number.
    auto block = static_cast<uint32_t>(i);
    if (ioctl(fd, FIBMAP, &block) == 0) AddBlock(block, mapped);
  }
}

void FileSkipper::MapExtents(int fd, uint64_t blockSize, uint64_t blocks, uint64_t& mapped) {
  // ext4 answers FIBMAP from the same block map as FIEMAP (after writing back delayed
  // blocks, which FIEMAP_FLAG_SYNC does too): a mapped extent is FIBMAP's answer for
  // each of its blocks, an unwritten or absent one is 0 for each, which adds nothing.
  // Indirect-mapped files (ext2/3 layout) report MERGED on extents built from their
  // block lists; the blocks are mapped all the same.
  constexpr uint32_t kPlain = FIEMAP_EXTENT_LAST | FIEMAP_EXTENT_MERGED;
  constexpr uint32_t kUnwritten = kPlain | FIEMAP_EXTENT_UNWRITTEN;
  std::vector<uint64_t> request((sizeof(struct fiemap) + kExtentsPerCall * sizeof(struct fiemap_extent)) /
                                    sizeof(uint64_t) +
                                1);
  auto* map = reinterpret_cast<struct fiemap*>(request.data());
  uint64_t next = 0;  // the first logical block not yet accounted for
  bool done = false;
  for (bool first = true; !done && next < blocks; first = false) {
    std::fill(request.begin(), request.end(), 0);
    map->fm_start = next * blockSize;
    map->fm_length = (blocks - next) * blockSize;
    map->fm_flags = first ? FIEMAP_FLAG_SYNC : 0;
    map->fm_extent_count = kExtentsPerCall;
    // A failed call leaves the rest to FIBMAP.
    if (ioctl(fd, FS_IOC_FIEMAP, map) != 0) break;
    // No extent in the range: only holes are left.
    if (map->fm_mapped_extents == 0) next = blocks;
    uint64_t before = next;
    for (uint32_t e = 0; e < map->fm_mapped_extents && !done; ++e) {
      const struct fiemap_extent& extent = map->fm_extents[e];
      if (extent.fe_logical % blockSize != 0 || extent.fe_physical % blockSize != 0 ||
          extent.fe_length % blockSize != 0) {
        done = true;  // not how ext4 answers: FIBMAP decides for the rest
        break;
      }
      uint64_t logical = extent.fe_logical / blockSize;
      uint64_t physical = extent.fe_physical / blockSize;
      uint64_t end = std::min<uint64_t>(blocks, logical + extent.fe_length / blockSize);
      if (logical >= blocks) {
        next = blocks;  // past the end of the file: FIBMAP is not asked there
        break;
      }
      if (logical < next) {
        // An extent that began before the range asked for: only its rest is new.
        if (end <= next) continue;
        physical += next - logical;
        logical = next;
      }
      uint64_t count = end - logical;
      if ((extent.fe_flags & ~kPlain) == 0 && end <= kFibmapLimit && physical + count <= kFibmapLimit) {
        AddBlocks(physical, count, mapped);
      } else if ((extent.fe_flags & FIEMAP_EXTENT_UNWRITTEN) == 0 || (extent.fe_flags & ~kUnwritten) != 0) {
        MapBlocks(fd, logical, end, mapped);
      }
      next = end;
      if ((extent.fe_flags & FIEMAP_EXTENT_LAST) != 0) next = blocks;  // holes up to the end
    }
    // An answer that moved nothing forward would be asked again for ever.
    if (next == before) break;
  }
  MapBlocks(fd, next, blocks, mapped);
}

void FileSkipper::AddBlocks(uint64_t firstPhysical, uint64_t blocks, uint64_t& count) {
  if (blocks == 0) return;
  if (firstPhysical == 0) {
    // Block 0 is a hole to AddBlock.
    ++firstPhysical;
    if (--blocks == 0) return;
  }
  count += blocks;
  if (!extents_.empty() && firstPhysical == static_cast<uint64_t>(lastBlock_) + 1) {
    extents_.back().second += blocks;
  } else {
    extents_.emplace_back(firstPhysical, firstPhysical + blocks - 1);
    ++extentCount_;
  }
  lastBlock_ = static_cast<uint32_t>(firstPhysical + blocks - 1);
}

void FileSkipper::AddBlock(uint64_t physicalBlock, uint64_t& count) {
  if (physicalBlock == 0) return;
  ++count;
  if (!extents_.empty() && physicalBlock == static_cast<uint64_t>(lastBlock_) + 1) {
    ++extents_.back().second;
  } else {
    extents_.emplace_back(physicalBlock, physicalBlock);
    ++extentCount_;
  }
  lastBlock_ = static_cast<uint32_t>(physicalBlock);
}

}  // namespace orv
