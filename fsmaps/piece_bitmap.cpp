#include "fsmaps/piece_bitmap.h"

#include <algorithm>
#include <cstring>

namespace orv {

PieceBitmap::PieceBitmap(uint8_t* buffer, uint64_t bufferBytes, uint64_t startBlock, uint64_t blockCount)
    : buffer_(buffer), bufferBytes_(bufferBytes), first_(startBlock), end_(startBlock) {
  // A buffer of more than 2^61 bytes cannot exist; capping keeps bufferBytes * 8 exact.
  uint64_t capacity = std::min<uint64_t>(bufferBytes, uint64_t{1} << 60) * 8;
  if (blockCount > startBlock) end_ = startBlock + std::min(capacity, blockCount - startBlock);
}

PieceBitmap::~PieceBitmap() = default;

bool PieceBitmap::Overlaps(uint64_t firstBlock, uint64_t count) const {
  uint64_t skipped = 0;
  return Clip(&firstBlock, &count, &skipped);
}

void PieceBitmap::Clear() {
  if (buffer_ != nullptr && bufferBytes_ > 0) memset(buffer_, 0, bufferBytes_);
}

bool PieceBitmap::Clip(uint64_t* firstBlock, uint64_t* count, uint64_t* skipped) const {
  uint64_t from = *firstBlock;
  uint64_t to = (*count > UINT64_MAX - from) ? UINT64_MAX : from + *count;
  from = std::max(from, first_);
  to = std::min(to, end_);
  if (from >= to) return false;
  *skipped = from - *firstBlock;
  *firstBlock = from;
  *count = to - from;
  return true;
}

void PieceBitmap::Fill(uint64_t firstBlock, uint64_t count, bool used) {
  uint64_t skipped = 0;
  if (!Clip(&firstBlock, &count, &skipped)) return;
  uint64_t bit = firstBlock - first_;
  uint64_t last = bit + count;
  // Leading bits up to a byte boundary, whole bytes, then trailing bits.
  while (bit < last && (bit & 7) != 0) {
    if (used) {
      buffer_[bit >> 3] |= static_cast<uint8_t>(1u << (bit & 7));
    } else {
      buffer_[bit >> 3] &= static_cast<uint8_t>(~(1u << (bit & 7)));
    }
    ++bit;
  }
  if (last - bit >= 8) {
    uint64_t bytes = (last - bit) >> 3;
    memset(buffer_ + (bit >> 3), used ? 0xFF : 0x00, bytes);
    bit += bytes << 3;
  }
  while (bit < last) {
    if (used) {
      buffer_[bit >> 3] |= static_cast<uint8_t>(1u << (bit & 7));
    } else {
      buffer_[bit >> 3] &= static_cast<uint8_t>(~(1u << (bit & 7)));
    }
    ++bit;
  }
}

void PieceBitmap::MarkUsed(uint64_t firstBlock, uint64_t count) { Fill(firstBlock, count, true); }

void PieceBitmap::MarkFree(uint64_t firstBlock, uint64_t count) { Fill(firstBlock, count, false); }

void PieceBitmap::CopyLsbFirst(const uint8_t* bits, uint64_t sourceBit, uint64_t firstBlock, uint64_t count) {
  uint64_t skipped = 0;
  if (!Clip(&firstBlock, &count, &skipped)) return;
  uint64_t src = sourceBit + skipped;
  uint64_t dst = firstBlock - first_;
  uint64_t left = count;
  // Same position within a byte on both sides (the usual case: groups and pieces start
  // on multiples of 8): copy whole bytes and OR them in.
  if ((src & 7) == (dst & 7)) {
    while (left > 0 && (dst & 7) != 0) {
      if (bits[src >> 3] & (1u << (src & 7))) buffer_[dst >> 3] |= static_cast<uint8_t>(1u << (dst & 7));
      ++src, ++dst, --left;
    }
    for (; left >= 8; left -= 8, src += 8, dst += 8) buffer_[dst >> 3] |= bits[src >> 3];
  }
  while (left > 0) {
    if ((src & 7) == 0 && left >= 8 && bits[src >> 3] == 0) {
      src += 8, dst += 8, left -= 8;
      continue;
    }
    if (bits[src >> 3] & (1u << (src & 7))) buffer_[dst >> 3] |= static_cast<uint8_t>(1u << (dst & 7));
    ++src, ++dst, --left;
  }
}

void PieceBitmap::CopyMsbFirst(const uint8_t* bits, uint64_t sourceBit, uint64_t firstBlock, uint64_t count) {
  uint64_t skipped = 0;
  if (!Clip(&firstBlock, &count, &skipped)) return;
  uint64_t src = sourceBit + skipped;
  uint64_t dst = firstBlock - first_;
  for (uint64_t left = count; left > 0; --left, ++src, ++dst) {
    if ((src & 7) == 0 && left >= 8 && bits[src >> 3] == 0) {
      src += 7, dst += 7, left -= 7;
      continue;
    }
    if (bits[src >> 3] & (0x80u >> (src & 7))) buffer_[dst >> 3] |= static_cast<uint8_t>(1u << (dst & 7));
  }
}

bool PieceBitmap::IsUsed(uint64_t block) const {
  if (block < first_ || block >= end_) return false;
  uint64_t bit = block - first_;
  return (buffer_[bit >> 3] >> (bit & 7)) & 1u;
}

}  // namespace orv
