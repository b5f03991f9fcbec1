#include "tests/fuzz/sparse_block_source.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace orv {

namespace {

uint64_t LittleEndian(const uint8_t* p, unsigned bytes) {
  uint64_t value = 0;
  for (unsigned i = 0; i < bytes; ++i) value |= static_cast<uint64_t>(p[i]) << (8 * i);
  return value;
}

}  // namespace

SparseBlockSource::SparseBlockSource(const uint8_t* data, size_t size) {
  if (size < 4) return;
  size_ = std::min(LittleEndian(data, 4), kMaxDeviceBytes);
  size_t pos = 4;
  while (size - pos >= 6) {
    uint64_t offset = LittleEndian(data + pos, 4);
    size_t length = std::min<size_t>(LittleEndian(data + pos + 4, 2), size - pos - 6);
    pos += 6;
    if (offset < size_) Write(offset, data + pos, std::min<uint64_t>(length, size_ - offset));
    pos += length;
  }
}

SparseBlockSource::~SparseBlockSource() = default;

void SparseBlockSource::Write(uint64_t offset, const uint8_t* data, size_t length) {
  while (length > 0) {
    uint64_t inPage = offset % kPageBytes;
    size_t n = static_cast<size_t>(std::min<uint64_t>(length, kPageBytes - inPage));
    std::vector<uint8_t>& page = pages_[offset / kPageBytes];
    if (page.empty()) page.resize(kPageBytes);
    memcpy(page.data() + inPage, data, n);
    offset += n;
    data += n;
    length -= n;
  }
}

BlockSource::Result SparseBlockSource::ReadAt(uint64_t offset, void* buffer, size_t length) {
  // The same answers as a block device: a seek past the end fails, a read running
  // past it is short.
  if (offset > size_) {
    errno = EINVAL;
    return Result::kSeekFailed;
  }
  if (length > size_ - offset) {
    errno = EIO;
    return Result::kReadFailed;
  }
  auto* out = static_cast<uint8_t*>(buffer);
  while (length > 0) {
    uint64_t inPage = offset % kPageBytes;
    size_t n = static_cast<size_t>(std::min<uint64_t>(length, kPageBytes - inPage));
    auto page = pages_.find(offset / kPageBytes);
    if (page == pages_.end()) {
      memset(out, 0, n);
    } else {
      memcpy(out, page->second.data() + inPage, n);
    }
    offset += n;
    out += n;
    length -= n;
  }
  return Result::kOk;
}

}  // namespace orv
