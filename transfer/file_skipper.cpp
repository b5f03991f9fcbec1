#include "transfer/file_skipper.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

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

}  // namespace

FileSkipper::FileSkipper(std::vector<std::string> files, std::string backupId, bool disabled)
    : files_(std::move(files)), backupId_(std::move(backupId)), disabled_(disabled) {}

FileSkipper::~FileSkipper() = default;

bool FileSkipper::IsCowFileBlock(uint64_t block, uint64_t blockSize) {
  if (disabled_) return false;
  if (!built_) {
    built_ = true;
    LogEvent(kDebug, backupId_, "Creating cow file block list...");
    BuildBlockList(blockSize);
    LogEvent(kDebug, backupId_, "Finished creating cow file block list.");
  }
  for (const Extent& extent : extents_) {
    if (extent.first <= block && block <= extent.second) return true;
  }
  return false;
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
  for (uint64_t i = 0; i < blocks; ++i) {
    // FIBMAP takes and returns a 32-bit block number.
    auto block = static_cast<uint32_t>(i);
    if (ioctl(file.fd(), FIBMAP, &block) == 0) AddBlock(block, mapped);
  }
  LogEvent(kDebug, backupId_, "Skipping %lu out of %lu blocks %lu out of %lu bytes", mapped, blocks, mapped * size,
           blocks * size);
  return "";
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
