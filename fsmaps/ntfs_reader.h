#ifndef ORV_FSMAPS_NTFS_READER_H_
#define ORV_FSMAPS_NTFS_READER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fsmaps/extent_map.h"
#include "fsmaps/fs_reader.h"

namespace orv {

// Used blocks of NTFS: the $Bitmap file (MFT record 6), one bit per cluster, least
// significant bit first. The record is read at MFT start + 6 records (the first
// sixteen records always lie in the MFT's first run), its update sequence fixups are
// applied, and the data runs of its unnamed $DATA attribute (all extents of it that
// the record holds) locate the bitmap. A $Bitmap that needs an attribute list is
// refused. The block is the cluster. The backup boot sector, which lies in the last
// sector of the device just past the file system's clusters, gets one more block
// when the device holds all of it, so that the copy keeps the volume whole.
class NtfsReader : public FsReader {
 public:
  explicit NtfsReader(BlockSource& source) : FsReader(source) {}
  ~NtfsReader() override;

  // "NTFS    " at byte 3 of a boot sector with the 0x55AA signature.
  static bool Probe(BlockSource& source);

  const char* Name() const override { return "NTFS"; }
  bool Open() override;
  bool Fill(PieceBitmap& piece) override;

  // Applies the update sequence fixups of one multi-sector record in place; false
  // when the record's update sequence array is out of bounds or a sector's last two
  // bytes do not carry the update sequence number (a torn or corrupt record).
  static bool ApplyFixups(uint8_t* record, size_t size);
  // Appends the mapping pairs in [runs, runs + length) to `map`, which checks every
  // run against the volume. An error text on failure, empty on success.
  static std::string DecodeRuns(const uint8_t* runs, size_t length, ExtentMap* map);

 private:
  bool LoadBitmapRecord();

  uint64_t clusters_ = 0;
  uint64_t mftOffset_ = 0;
  uint64_t recordSize_ = 0;
  uint64_t backupBootBlock_ = UINT64_MAX;
  std::vector<uint8_t> record_;
  // $Bitmap's data: resident bytes, or runs with their initialised size.
  bool resident_ = false;
  std::vector<uint8_t> residentData_;
  ExtentMap runs_{1, 1};
  uint64_t dataSize_ = 0;
  uint64_t validSize_ = 0;
  std::vector<uint8_t> chunk_;
};

}  // namespace orv

#endif  // ORV_FSMAPS_NTFS_READER_H_
