#include "cow_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "aligned_buffer.h"
#include "sim_error.h"
#include "unique_fd.h"

namespace orv::zelkosim {

namespace {

constexpr size_t kZeroChunk = 4 << 20;

void Fill(int fd, uint64_t fileBytes, const std::string& header, const std::string& path) {
  AlignedBuffer zeros(kZeroChunk);
  for (uint64_t at = 0; at < fileBytes; at += kZeroChunk) {
    size_t length = static_cast<size_t>(std::min<uint64_t>(kZeroChunk, fileBytes - at));
    PwriteFull(fd, zeros.data(), length, static_cast<off_t>(at), "COW file " + path);
  }
  PwriteFull(fd, header.data(), header.size(), 0, "COW file " + path);
  if (::fsync(fd) != 0) SimError::Raise(errno, "cannot sync COW file " + path);
}

}  // namespace

void CowFile::create(uint64_t fileBytes, const CowHeader& header) const {
  if (::unlink(path_.c_str()) != 0 && errno != ENOENT) SimError::Raise(errno, "cannot replace COW file " + path_);
  UniqueFd fd = UniqueFd::Open(path_, O_RDWR | O_CREAT | O_EXCL, "COW file", 0600);
  try {
    std::string what = "cannot allocate " + std::to_string(fileBytes >> 20) + " MiB for COW file " + path_;
    if (::fallocate(fd.get(), 0, 0, static_cast<off_t>(fileBytes)) != 0) {
      if (errno != EOPNOTSUPP) SimError::Raise(errno, what);
      // No fallocate (FUSE): refuse what cannot fit as fallocate would, and let the
      // zero-fill below allocate the rest.
      struct statfs fs {};
      if (::fstatfs(fd.get(), &fs) != 0) SimError::Raise(errno, what);
      if (static_cast<uint64_t>(fs.f_bavail) * static_cast<uint64_t>(fs.f_bsize) < fileBytes) {
        SimError::Raise(ENOSPC, what);
      }
    }
    Fill(fd.get(), fileBytes, header.encode(), path_);
  } catch (...) {
    ::unlink(path_.c_str());
    throw;
  }
}

CowHeader CowFile::readHeader() const {
  UniqueFd fd = UniqueFd::Open(path_, O_RDONLY, "COW file");
  std::string bytes(CowHeader::kSize, '\0');
  bytes.resize(PreadFull(fd.get(), bytes.data(), bytes.size(), 0, "COW file " + path_));
  try {
    return CowHeader::Decode(bytes);
  } catch (const SimError& e) {
    throw SimError(e.err(), path_ + ": " + e.what());
  }
}

ChangeMap CowFile::readMap(const CowHeader& header) const {
  UniqueFd fd = UniqueFd::Open(path_, O_RDONLY, "COW file");
  std::string entries(header.blocks() * sizeof(uint64_t), '\0');
  entries.resize(PreadFull(fd.get(), entries.data(), entries.size(), CowHeader::kSize, "COW file " + path_));
  return ChangeMap::DecodeEntries(entries, header.blocks());
}

ExtentList CowFile::extents(uint64_t length) const {
  UniqueFd fd = UniqueFd::Open(path_, O_RDONLY, "COW file");
  return ExtentList::OfFile(fd.get(), length, path_);
}

void CowFile::writeRegion(const CowHeader& header, const ChangeMap& map, const std::vector<int>& deviceFds) const {
  uint64_t regionBytes = CowHeader::RegionBytes(header.volume_bytes);
  AlignedBuffer region(static_cast<size_t>(regionBytes));
  std::string head = header.encode();
  std::memcpy(region.data(), head.data(), head.size());
  std::string entries = map.encodeEntries();
  std::memcpy(region.data() + CowHeader::kSize, entries.data(), entries.size());

  UniqueFd fd = UniqueFd::Open(path_, O_RDONLY, "COW file");
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) SimError::Raise(errno, "cannot stat COW file " + path_);
  if (static_cast<uint64_t>(st.st_size) < regionBytes) {
    throw SimError(EINVAL, "COW file " + path_ + " is too small for the map of its volume");
  }
  ExtentList list = ExtentList::OfFile(fd.get(), regionBytes, path_);
  for (const Extent& e : list.extents()) {
    if (e.logical >= regionBytes) break;
    uint64_t length = std::min(e.length, regionBytes - e.logical);
    for (int target : deviceFds) {
      PwriteFull(target, region.data() + e.logical, static_cast<size_t>(length), static_cast<off_t>(e.physical),
                 "the blocks of COW file " + path_);
    }
  }
  for (int target : deviceFds) {
    if (::fdatasync(target) != 0) SimError::Raise(errno, "cannot sync the blocks of COW file " + path_);
  }
  // The file system may still cache the old content of these pages.
  if (int err = ::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_DONTNEED); err != 0) {
    SimError::Raise(err, "cannot drop the cached pages of COW file " + path_);
  }
}

}  // namespace orv::zelkosim
