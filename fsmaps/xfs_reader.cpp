#include "fsmaps/xfs_reader.h"

#include <algorithm>
#include <cerrno>
#include <unordered_set>
#include <utility>

#include "fsmaps/byte_order.h"

namespace orv {

namespace {

constexpr uint32_t kSuperMagic = 0x58465342;    // "XFSB"
constexpr uint32_t kAgfMagic = 0x58414746;      // "XAGF"
constexpr uint32_t kBnoMagicV4 = 0x41425442;    // "ABTB"
constexpr uint32_t kBnoMagicV5 = 0x41423342;    // "AB3B"
constexpr uint64_t kShortHeaderV4 = 16;
constexpr uint64_t kShortHeaderV5 = 56;
constexpr uint32_t kMaxLevels = 16;
constexpr uint32_t kAgflMagic = 0x5841464C;     // "XAFL"
constexpr uint64_t kAgflHeaderV5 = 36;

}  // namespace

XfsReader::~XfsReader() = default;

bool XfsReader::Probe(BlockSource& source) {
  uint8_t magic[4];
  if (source.ReadAt(0, magic, sizeof(magic)) != BlockSource::Result::kOk) return false;
  return Be32(magic) == kSuperMagic;
}

bool XfsReader::Open() {
  uint8_t sb[512];
  if (!Read(0, sb, sizeof(sb), "XFS superblock")) return false;
  uint32_t blockSize = Be32(sb + 4);
  uint64_t dataBlocks = Be64(sb + 8);
  agBlocks_ = Be32(sb + 84);
  agCount_ = Be32(sb + 88);
  uint16_t version = Be16(sb + 100) & 0x000F;
  sectorSize_ = Be16(sb + 102);
  if (Be32(sb) != kSuperMagic || blockSize < 512 || blockSize > 65536 || !IsPowerOfTwo(blockSize) ||
      sectorSize_ < 512 || sectorSize_ > blockSize || !IsPowerOfTwo(sectorSize_) || agBlocks_ < 64 ||
      agCount_ == 0 || (version != 4 && version != 5)) {
    ReportFsError(EUCLEAN, "Corrupt XFS superblock\n");
    return false;
  }
  // The last AG may be short, every other one is full.
  uint64_t fullAgs = uint64_t{agCount_ - 1} * agBlocks_;
  if (dataBlocks <= fullAgs || dataBlocks > fullAgs + agBlocks_) {
    ReportFsError(EUCLEAN, "Corrupt XFS superblock: %llu blocks in %u AGs of %u blocks\n",
                  static_cast<unsigned long long>(dataBlocks), agCount_, agBlocks_);
    return false;
  }
  v5_ = version == 5;
  blockSize_ = blockSize;
  blockCount_ = dataBlocks;
  return true;
}

bool XfsReader::Fill(PieceBitmap& piece) {
  // Everything is used until a free-space record says otherwise.
  piece.MarkUsed(piece.first(), piece.covered());
  block_.resize(blockSize_);
  // Only the AGs that the piece overlaps.
  uint64_t lastAg = (piece.end() - 1) / agBlocks_;
  for (uint64_t ag = piece.first() / agBlocks_; ag <= lastAg && ag < agCount_; ++ag) {
    if (!WalkFreeSpace(static_cast<uint32_t>(ag), piece)) return false;
  }
  return true;
}

bool XfsReader::WalkFreeSpace(uint32_t ag, PieceBitmap& piece) {
  uint64_t agFirst = uint64_t{ag} * agBlocks_;
  uint8_t agf[512];
  if (!Read(agFirst * blockSize_ + sectorSize_, agf, sizeof(agf), "XFS AGF")) return false;
  uint32_t agLength = Be32(agf + 12);
  uint32_t root = Be32(agf + 16);
  uint32_t levels = Be32(agf + 28);
  uint64_t expectedLength = std::min<uint64_t>(agBlocks_, blockCount_ - agFirst);
  if (Be32(agf) != kAgfMagic || Be32(agf + 8) != ag || agLength != expectedLength || root == 0 || root >= agLength ||
      levels == 0 || levels > kMaxLevels) {
    ReportFsError(EUCLEAN, "Corrupt XFS AGF in AG %u\n", ag);
    return false;
  }
  if (!MarkFreeList(ag, agf, agLength, piece)) return false;
  uint32_t magic = v5_ ? kBnoMagicV5 : kBnoMagicV4;
  uint64_t header = v5_ ? kShortHeaderV5 : kShortHeaderV4;
  uint64_t maxLeafRecords = (blockSize_ - header) / 8;
  uint64_t maxNodeRecords = (blockSize_ - header) / 12;
  std::unordered_set<uint32_t> visited;
  std::vector<std::pair<uint32_t, uint32_t>> pending{{root, levels - 1}};  // (AG block, level)
  while (!pending.empty()) {
    auto [agBlock, level] = pending.back();
    pending.pop_back();
    if (!visited.insert(agBlock).second) {
      ReportFsError(EUCLEAN, "Corrupt XFS free-space btree in AG %u: block %u is reached twice\n", ag, agBlock);
      return false;
    }
    uint64_t linear = agFirst + agBlock;
    if (!Read(linear * blockSize_, block_.data(), blockSize_, "XFS free-space btree block")) return false;
    const uint8_t* b = block_.data();
    uint32_t numRecords = Be16(b + 6);
    bool selfOk = !v5_ || (Be64(b + 16) == linear * (blockSize_ / 512) && Be32(b + 48) == ag);
    if (Be32(b) != magic || Be16(b + 4) != level || !selfOk ||
        numRecords > (level == 0 ? maxLeafRecords : maxNodeRecords)) {
      ReportFsError(EUCLEAN, "Corrupt XFS free-space btree block %u in AG %u\n", agBlock, ag);
      return false;
    }
    if (level == 0) {
      for (uint32_t i = 0; i < numRecords; ++i) {
        uint32_t start = Be32(b + header + i * 8);
        uint32_t count = Be32(b + header + i * 8 + 4);
        if (count == 0 || start >= agLength || count > agLength - start) {
          ReportFsError(EUCLEAN, "Corrupt XFS free extent %u+%u in AG %u\n", start, count, ag);
          return false;
        }
        piece.MarkFree(agFirst + start, count);
      }
      continue;
    }
    // Node: keys fill the first half of the record area, pointers start after the
    // largest possible key array.
    const uint8_t* pointers = b + header + maxNodeRecords * 8;
    for (uint32_t i = 0; i < numRecords; ++i) {
      uint32_t child = Be32(pointers + i * 4);
      if (child == 0 || child >= agLength) {
        ReportFsError(EUCLEAN, "Corrupt XFS free-space btree pointer %u in AG %u\n", child, ag);
        return false;
      }
      pending.emplace_back(child, level - 1);
    }
  }
  return true;
}

bool XfsReader::MarkFreeList(uint32_t ag, const uint8_t* agf, uint32_t agLength, PieceBitmap& piece) {
  uint32_t first = Be32(agf + 40);
  uint32_t last = Be32(agf + 44);
  uint32_t count = Be32(agf + 48);
  if (count == 0) return true;
  uint64_t agFirst = uint64_t{ag} * agBlocks_;
  std::vector<uint8_t> agfl(sectorSize_);
  if (!Read(agFirst * blockSize_ + 3 * uint64_t{sectorSize_}, agfl.data(), agfl.size(), "XFS AGFL")) return false;
  uint64_t header = 0;
  if (v5_) {
    if (Be32(agfl.data()) != kAgflMagic || Be32(agfl.data() + 4) != ag) return true;
    header = kAgflHeaderV5;
  }
  // Kernels have disagreed about the number of slots, which only matters once the
  // list wraps: a wrapped list is left as used rather than risk freeing a used block.
  uint64_t slots = (sectorSize_ - header) / 4;
  if (first > last || last >= slots || count != last - first + 1) return true;
  for (uint32_t i = first; i <= last; ++i) {
    uint32_t block = Be32(agfl.data() + header + uint64_t{i} * 4);
    if (block == 0 || block >= agLength) return true;
  }
  for (uint32_t i = first; i <= last; ++i) piece.MarkFree(agFirst + Be32(agfl.data() + header + uint64_t{i} * 4), 1);
  return true;
}

}  // namespace orv
