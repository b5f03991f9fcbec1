#include "fsmaps/hfs_reader.h"

#include <algorithm>
#include <cerrno>

#include "fsmaps/byte_order.h"

namespace orv {

namespace {

constexpr uint64_t kHeaderOffset = 1024;
constexpr uint16_t kSignaturePlus = 0x482B;  // "H+"
constexpr uint16_t kSignatureX = 0x4858;     // "HX"
constexpr uint64_t kAllocationFork = 112;
constexpr int kForkExtents = 8;
constexpr uint64_t kChunkBytes = 1 << 20;

bool LooksLikeHfsPlus(const uint8_t* header) {
  uint16_t signature = Be16(header);
  uint16_t version = Be16(header + 2);
  return (signature == kSignaturePlus && version == 4) || (signature == kSignatureX && version == 5);
}

}  // namespace

HfsReader::~HfsReader() = default;

bool HfsReader::Probe(BlockSource& source) {
  uint8_t header[4];
  if (source.ReadAt(kHeaderOffset, header, sizeof(header)) != BlockSource::Result::kOk) return false;
  return LooksLikeHfsPlus(header);
}

bool HfsReader::Open() {
  uint8_t header[512];
  if (!Read(kHeaderOffset, header, sizeof(header), "HFS+ volume header")) return false;
  uint64_t blockSize = Be32(header + 40);
  uint64_t totalBlocks = Be32(header + 44);
  if (!LooksLikeHfsPlus(header) || blockSize < 512 || blockSize > (uint64_t{1} << 26) || !IsPowerOfTwo(blockSize) ||
      totalBlocks == 0) {
    ReportFsError(EUCLEAN, "Corrupt HFS+ volume header\n");
    return false;
  }
  blockSize_ = blockSize;
  blockCount_ = totalBlocks;
  const uint8_t* fork = header + kAllocationFork;
  uint64_t logicalSize = Be64(fork);
  uint64_t forkBlocks = Be32(fork + 12);
  allocationBytes_ = (totalBlocks + 7) / 8;
  if (logicalSize < allocationBytes_ || logicalSize > forkBlocks * blockSize) {
    ReportFsError(EUCLEAN, "Corrupt HFS+ volume header: allocation file of %llu bytes for %llu blocks\n",
                  static_cast<unsigned long long>(logicalSize), static_cast<unsigned long long>(totalBlocks));
    return false;
  }
  allocationFile_ = ExtentMap(blockSize, totalBlocks);
  for (int i = 0; i < kForkExtents && allocationFile_.units() < forkBlocks; ++i) {
    uint64_t start = Be32(fork + 16 + i * 8);
    uint64_t count = Be32(fork + 20 + i * 8);
    if (count == 0) break;
    if (!allocationFile_.Append(count, start)) {
      ReportFsError(EUCLEAN, "Corrupt HFS+ volume header: allocation file extent %llu+%llu\n",
                    static_cast<unsigned long long>(start), static_cast<unsigned long long>(count));
      return false;
    }
  }
  if (allocationFile_.bytes() < allocationBytes_) {
    ReportFsError(EOPNOTSUPP,
                  "HFS+ allocation file continues in the extents overflow file, which is not supported\n");
    return false;
  }
  return true;
}

bool HfsReader::Fill(PieceBitmap& piece) {
  uint64_t firstByte = piece.first() / 8;
  uint64_t endByte = std::min(allocationBytes_, (piece.end() + 7) / 8);
  if (endByte <= firstByte) return true;
  chunk_.resize(std::min(kChunkBytes, endByte - firstByte));
  for (uint64_t byte = firstByte; byte < endByte;) {
    size_t n = static_cast<size_t>(std::min<uint64_t>(chunk_.size(), endByte - byte));
    if (!allocationFile_.Read(source_, byte, chunk_.data(), n, UINT64_MAX)) return false;
    uint64_t firstBlock = byte * 8;
    piece.CopyMsbFirst(chunk_.data(), 0, firstBlock, std::min<uint64_t>(n * 8, blockCount_ - firstBlock));
    byte += n;
  }
  return true;
}

}  // namespace orv
