#include "fsmaps/fat_reader.h"

#include <algorithm>
#include <cerrno>

#include "fsmaps/byte_order.h"

namespace orv {

namespace {

constexpr uint32_t kEntryMask = 0x0FFFFFFF;
constexpr uint64_t kEntriesPerRead = 65536;

// The BPB fields both Probe and Open look at.
struct Bpb {
  uint32_t bytesPerSector;
  uint32_t sectorsPerCluster;
  uint32_t reservedSectors;
  uint32_t fatCount;
  uint32_t rootEntries;
  uint32_t totalSectors16;
  uint32_t fatSize16;
  uint32_t totalSectors32;
  uint32_t fatSize32;
  uint32_t extFlags;

  explicit Bpb(const uint8_t* s)
      : bytesPerSector(Le16(s + 11)),
        sectorsPerCluster(s[13]),
        reservedSectors(Le16(s + 14)),
        fatCount(s[16]),
        rootEntries(Le16(s + 17)),
        totalSectors16(Le16(s + 19)),
        fatSize16(Le16(s + 22)),
        totalSectors32(Le32(s + 32)),
        fatSize32(Le32(s + 36)),
        extFlags(Le16(s + 40)) {}
  uint64_t totalSectors() const { return totalSectors16 != 0 ? totalSectors16 : totalSectors32; }
};

bool LooksLikeFat32(const uint8_t* sector) {
  if (sector[510] != 0x55 || sector[511] != 0xAA) return false;
  Bpb bpb(sector);
  return bpb.fatSize16 == 0 && bpb.fatSize32 != 0 && bpb.rootEntries == 0 && bpb.bytesPerSector >= 512 &&
         bpb.bytesPerSector <= 4096 && IsPowerOfTwo(bpb.bytesPerSector) && IsPowerOfTwo(bpb.sectorsPerCluster) &&
         bpb.reservedSectors != 0 && bpb.fatCount != 0 && bpb.totalSectors() != 0;
}

}  // namespace

FatReader::~FatReader() = default;

bool FatReader::Probe(BlockSource& source) {
  uint8_t sector[512];
  if (source.ReadAt(0, sector, sizeof(sector)) != BlockSource::Result::kOk) return false;
  return LooksLikeFat32(sector);
}

bool FatReader::Open() {
  uint8_t sector[512];
  if (!Read(0, sector, sizeof(sector), "FAT boot sector")) return false;
  if (!LooksLikeFat32(sector)) {
    ReportFsError(EUCLEAN, "Corrupt FAT32 boot sector\n");
    return false;
  }
  Bpb bpb(sector);
  uint64_t sectorSize = bpb.bytesPerSector;
  uint64_t clusterBytes = sectorSize * bpb.sectorsPerCluster;
  uint64_t dataStartSector = bpb.reservedSectors + uint64_t{bpb.fatCount} * bpb.fatSize32;
  uint64_t totalSectors = bpb.totalSectors();
  if (dataStartSector >= totalSectors || clusterBytes > (uint64_t{1} << 21)) {
    ReportFsError(EUCLEAN, "Corrupt FAT32 boot sector: data area at sector %llu of %llu\n",
                  static_cast<unsigned long long>(dataStartSector), static_cast<unsigned long long>(totalSectors));
    return false;
  }
  clusterCount_ = (totalSectors - dataStartSector) / bpb.sectorsPerCluster;
  // Clusters the FAT has no entry for cannot be allocated; a FAT that is too short
  // for the volume means the boot sector is wrong.
  uint64_t fatEntries = uint64_t{bpb.fatSize32} * sectorSize / 4;
  if (clusterCount_ == 0 || clusterCount_ + 2 > fatEntries || clusterCount_ > kEntryMask - 16) {
    ReportFsError(EUCLEAN, "Corrupt FAT32 boot sector: %llu clusters, FAT of %llu entries\n",
                  static_cast<unsigned long long>(clusterCount_), static_cast<unsigned long long>(fatEntries));
    return false;
  }
  uint32_t activeFat = 0;
  if ((bpb.extFlags & 0x80) != 0) activeFat = bpb.extFlags & 0x0F;
  if (activeFat >= bpb.fatCount) {
    ReportFsError(EUCLEAN, "Corrupt FAT32 boot sector: active FAT %u of %u\n", activeFat, bpb.fatCount);
    return false;
  }
  fatOffset_ = (bpb.reservedSectors + uint64_t{activeFat} * bpb.fatSize32) * sectorSize;
  blockSize_ = (dataStartSector * sectorSize) % clusterBytes == 0 ? clusterBytes : sectorSize;
  blocksPerCluster_ = clusterBytes / blockSize_;
  dataStartBlock_ = dataStartSector * sectorSize / blockSize_;
  blockCount_ = dataStartBlock_ + clusterCount_ * blocksPerCluster_;
  return true;
}

bool FatReader::Fill(PieceBitmap& piece) {
  piece.MarkUsed(0, dataStartBlock_);
  if (piece.end() <= dataStartBlock_) return true;
  uint64_t first = piece.first() > dataStartBlock_ ? (piece.first() - dataStartBlock_) / blocksPerCluster_ : 0;
  uint64_t end = std::min(clusterCount_, (piece.end() - dataStartBlock_ + blocksPerCluster_ - 1) / blocksPerCluster_);
  entries_.resize(kEntriesPerRead * 4);
  for (uint64_t cluster = first; cluster < end;) {
    uint64_t n = std::min(kEntriesPerRead, end - cluster);
    // Data cluster c (counting from 0) is FAT entry c + 2.
    if (!Read(fatOffset_ + (cluster + 2) * 4, entries_.data(), n * 4, "FAT")) return false;
    for (uint64_t i = 0; i < n; ++i) {
      if ((Le32(entries_.data() + i * 4) & kEntryMask) != 0) {
        piece.MarkUsed(dataStartBlock_ + (cluster + i) * blocksPerCluster_, blocksPerCluster_);
      }
    }
    cluster += n;
  }
  return true;
}

}  // namespace orv
