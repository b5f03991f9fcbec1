#include "fsmaps/ntfs_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "fsmaps/byte_order.h"

namespace orv {

namespace {

constexpr uint64_t kBitmapRecord = 6;
constexpr uint64_t kFixupStride = 512;
constexpr uint32_t kAttrList = 0x20;
constexpr uint32_t kAttrData = 0x80;
constexpr uint32_t kAttrEnd = 0xFFFFFFFF;
constexpr uint64_t kChunkBytes = 1 << 20;

bool LooksLikeNtfs(const uint8_t* sector) {
  return memcmp(sector + 3, "NTFS    ", 8) == 0 && sector[510] == 0x55 && sector[511] == 0xAA;
}

uint64_t UnsignedLe(const uint8_t* p, unsigned bytes) {
  uint64_t value = 0;
  for (unsigned i = 0; i < bytes; ++i) value |= static_cast<uint64_t>(p[i]) << (8 * i);
  return value;
}

int64_t SignedLe(const uint8_t* p, unsigned bytes) {
  uint64_t value = UnsignedLe(p, bytes);
  if (bytes < 8 && (p[bytes - 1] & 0x80) != 0) value |= ~uint64_t{0} << (8 * bytes);
  return static_cast<int64_t>(value);
}

// One extent of $Bitmap's unnamed $DATA attribute as the record holds it.
struct DataExtent {
  uint64_t lowestVcn;
  uint64_t highestVcn;
  const uint8_t* runs;
  size_t runsLength;
};

}  // namespace

NtfsReader::~NtfsReader() = default;

bool NtfsReader::Probe(BlockSource& source) {
  uint8_t sector[512];
  if (source.ReadAt(0, sector, sizeof(sector)) != BlockSource::Result::kOk) return false;
  return LooksLikeNtfs(sector);
}

bool NtfsReader::Open() {
  uint8_t boot[512];
  if (!Read(0, boot, sizeof(boot), "NTFS boot sector")) return false;
  uint64_t sectorSize = Le16(boot + 11);
  uint8_t rawPerCluster = boot[13];
  uint64_t sectorsPerCluster = rawPerCluster <= 0x80 ? rawPerCluster : uint64_t{1} << std::min(256 - rawPerCluster, 63);
  uint64_t totalSectors = Le64(boot + 40);
  uint64_t mftCluster = Le64(boot + 48);
  auto perRecord = static_cast<int8_t>(boot[64]);
  if (!LooksLikeNtfs(boot) || sectorSize < 256 || sectorSize > 4096 || !IsPowerOfTwo(sectorSize) ||
      !IsPowerOfTwo(sectorsPerCluster) || sectorsPerCluster > 8192 ||
      sectorsPerCluster * sectorSize > (uint64_t{1} << 21) ||
      totalSectors == 0 || totalSectors > (uint64_t{1} << 48)) {
    ReportFsError(EUCLEAN, "Corrupt NTFS boot sector\n");
    return false;
  }
  blockSize_ = sectorSize * sectorsPerCluster;
  clusters_ = totalSectors / sectorsPerCluster;
  if (perRecord > 0) {
    recordSize_ = static_cast<uint64_t>(perRecord) * blockSize_;
  } else if (perRecord >= -31) {
    recordSize_ = uint64_t{1} << -perRecord;
  }
  if (recordSize_ < kFixupStride || recordSize_ > 65536 || !IsPowerOfTwo(recordSize_) || mftCluster == 0 ||
      mftCluster >= clusters_) {
    ReportFsError(EUCLEAN, "Corrupt NTFS boot sector: MFT at cluster %llu, records of %llu bytes\n",
                  static_cast<unsigned long long>(mftCluster), static_cast<unsigned long long>(recordSize_));
    return false;
  }
  mftOffset_ = mftCluster * blockSize_;
  blockCount_ = clusters_;
  uint64_t backupBlock = totalSectors * sectorSize / blockSize_;
  uint64_t deviceSize = source_.Size();
  if (backupBlock >= clusters_ && deviceSize / blockSize_ > backupBlock) {
    backupBootBlock_ = backupBlock;
    blockCount_ = backupBlock + 1;
  }
  return true;
}

bool NtfsReader::ApplyFixups(uint8_t* record, size_t size) {
  if (size < kFixupStride || size % kFixupStride != 0) return false;
  uint64_t arrayOffset = Le16(record + 4);
  uint64_t arrayCount = Le16(record + 6);
  // One entry for the update sequence number, one per 512-byte stride; the array
  // lies in the first stride, before any fixed-up position.
  if (arrayCount != size / kFixupStride + 1 || arrayOffset < 8 || arrayOffset % 2 != 0 ||
      arrayOffset + 2 * arrayCount > kFixupStride - 2) {
    return false;
  }
  const uint8_t* array = record + arrayOffset;
  for (uint64_t i = 1; i < arrayCount; ++i) {
    uint8_t* tail = record + i * kFixupStride - 2;
    if (tail[0] != array[0] || tail[1] != array[1]) return false;
    tail[0] = array[2 * i];
    tail[1] = array[2 * i + 1];
  }
  return true;
}

std::string NtfsReader::DecodeRuns(const uint8_t* runs, size_t length, ExtentMap* map) {
  int64_t lcn = 0;
  size_t pos = 0;
  while (pos < length && runs[pos] != 0) {
    unsigned lengthBytes = runs[pos] & 0x0F;
    unsigned offsetBytes = runs[pos] >> 4;
    if (lengthBytes == 0 || lengthBytes > 8 || offsetBytes > 8 || pos + 1 + lengthBytes + offsetBytes > length) {
      return "malformed data run";
    }
    uint64_t count = UnsignedLe(runs + pos + 1, lengthBytes);
    if (offsetBytes == 0) {
      if (!map->AppendHole(count)) return "malformed sparse run";
    } else {
      int64_t delta = SignedLe(runs + pos + 1 + lengthBytes, offsetBytes);
      if ((delta > 0 && lcn > INT64_MAX - delta) || (delta < 0 && lcn < INT64_MIN - delta)) return "data run overflows";
      lcn += delta;
      if (lcn < 0 || !map->Append(count, static_cast<uint64_t>(lcn))) return "data run past the end of the volume";
    }
    pos += 1 + lengthBytes + offsetBytes;
  }
  return "";
}

bool NtfsReader::LoadBitmapRecord() {
  record_.resize(recordSize_);
  if (!Read(mftOffset_ + kBitmapRecord * recordSize_, record_.data(), recordSize_, "NTFS $Bitmap record")) {
    return false;
  }
  uint8_t* r = record_.data();
  if (memcmp(r, "FILE", 4) != 0 || !ApplyFixups(r, recordSize_)) {
    ReportFsError(EUCLEAN, "Corrupt NTFS $Bitmap record: bad signature or update sequence\n");
    return false;
  }
  uint64_t used = std::min<uint64_t>(Le32(r + 24), recordSize_);
  uint64_t offset = Le16(r + 20);
  if ((Le16(r + 22) & 0x0001) == 0) {
    ReportFsError(EUCLEAN, "Corrupt NTFS $Bitmap record: not in use\n");
    return false;
  }
  bool attributeList = false;
  bool found = false;
  std::vector<DataExtent> extents;
  // Every attribute is at least 16 bytes, so the walk ends within the record.
  while (offset + 8 <= used) {
    const uint8_t* a = r + offset;
    uint32_t type = Le32(a);
    if (type == kAttrEnd) break;
    uint64_t length = Le32(a + 4);
    if (length < 16 || length % 8 != 0 || length > used - offset) {
      ReportFsError(EUCLEAN, "Corrupt NTFS $Bitmap record: attribute at %llu\n", static_cast<unsigned long long>(offset));
      return false;
    }
    if (type == kAttrList) attributeList = true;
    if (type == kAttrData && a[9] == 0) {
      bool nonResident = a[8] != 0;
      if (!nonResident) {
        uint64_t valueLength = length >= 24 ? Le32(a + 16) : UINT64_MAX;
        uint64_t valueOffset = length >= 24 ? Le16(a + 20) : 0;
        if (valueLength > length || valueOffset > length - valueLength || found) {
          ReportFsError(EUCLEAN, "Corrupt NTFS $Bitmap record: resident data\n");
          return false;
        }
        resident_ = true;
        residentData_.assign(a + valueOffset, a + valueOffset + valueLength);
        dataSize_ = validSize_ = valueLength;
      } else {
        uint64_t runsOffset = length >= 64 ? Le16(a + 32) : UINT64_MAX;
        if (runsOffset > length || resident_) {
          ReportFsError(EUCLEAN, "Corrupt NTFS $Bitmap record: non-resident data\n");
          return false;
        }
        uint64_t lowest = Le64(a + 16);
        if (lowest == 0) {
          dataSize_ = Le64(a + 48);
          validSize_ = std::min(dataSize_, Le64(a + 56));
        }
        extents.push_back({lowest, Le64(a + 24), a + runsOffset, static_cast<size_t>(length - runsOffset)});
      }
      found = true;
    }
    offset += length;
  }
  if (!found) {
    if (attributeList) {
      ReportFsError(EOPNOTSUPP, "NTFS $Bitmap is described by an attribute list, which is not supported\n");
    } else {
      ReportFsError(EUCLEAN, "Corrupt NTFS $Bitmap record: no data attribute\n");
    }
    return false;
  }
  if (resident_) return true;
  std::sort(extents.begin(), extents.end(),
            [](const DataExtent& x, const DataExtent& y) { return x.lowestVcn < y.lowestVcn; });
  runs_ = ExtentMap(blockSize_, clusters_);
  for (const DataExtent& extent : extents) {
    // Extents must continue each other exactly; a gap means a part is held elsewhere.
    if (extent.lowestVcn != runs_.units()) {
      ReportFsError(attributeList ? EOPNOTSUPP : EUCLEAN,
                    "NTFS $Bitmap data extent at VCN %llu does not follow VCN %llu\n",
                    static_cast<unsigned long long>(extent.lowestVcn), static_cast<unsigned long long>(runs_.units()));
      return false;
    }
    std::string error = DecodeRuns(extent.runs, extent.runsLength, &runs_);
    if (!error.empty()) {
      ReportFsError(EUCLEAN, "Corrupt NTFS $Bitmap: %s\n", error.c_str());
      return false;
    }
  }
  if (dataSize_ > runs_.bytes()) {
    ReportFsError(EUCLEAN, "Corrupt NTFS $Bitmap: %llu bytes of data in %llu mapped bytes\n",
                  static_cast<unsigned long long>(dataSize_), static_cast<unsigned long long>(runs_.bytes()));
    return false;
  }
  return true;
}

bool NtfsReader::Fill(PieceBitmap& piece) {
  if (!LoadBitmapRecord()) return false;
  // Bytes of $Bitmap that describe the piece's clusters; clusters past its data are
  // free.
  uint64_t firstByte = piece.first() / 8;
  uint64_t endByte = std::min(dataSize_, (std::min(piece.end(), clusters_) + 7) / 8);
  if (backupBootBlock_ != UINT64_MAX) piece.MarkUsed(backupBootBlock_, 1);
  if (endByte <= firstByte) return true;
  chunk_.resize(std::min(kChunkBytes, endByte - firstByte));
  for (uint64_t byte = firstByte; byte < endByte;) {
    size_t n = static_cast<size_t>(std::min<uint64_t>(chunk_.size(), endByte - byte));
    if (resident_) {
      memcpy(chunk_.data(), residentData_.data() + byte, n);
    } else if (!runs_.Read(source_, byte, chunk_.data(), n, validSize_)) {
      return false;
    }
    uint64_t firstCluster = byte * 8;
    piece.CopyLsbFirst(chunk_.data(), 0, firstCluster, std::min<uint64_t>(n * 8, clusters_ - firstCluster));
    byte += n;
  }
  return true;
}

}  // namespace orv
