#include "fsmaps/extent_map.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "fsmaps/fs_reader.h"

namespace orv {

ExtentMap::~ExtentMap() = default;

bool ExtentMap::Append(uint64_t count, uint64_t deviceUnit) {
  if (count == 0 || deviceUnit >= deviceUnits_ || count > deviceUnits_ - deviceUnit) return false;
  runs_.push_back({units_, count, deviceUnit, false});
  units_ += count;
  return true;
}

bool ExtentMap::AppendHole(uint64_t count) {
  if (count == 0 || count > deviceUnits_) return false;
  runs_.push_back({units_, count, 0, true});
  units_ += count;
  return true;
}

bool ExtentMap::Read(BlockSource& source, uint64_t offset, uint8_t* buffer, size_t length,
                     uint64_t validBytes) const {
  if (length == 0) return true;
  if (offset > bytes() || length > bytes() - offset) {
    ReportFsError(EUCLEAN, "Allocation bitmap read of %zu bytes at %llu is past its %llu mapped bytes\n", length,
                  static_cast<unsigned long long>(offset), static_cast<unsigned long long>(bytes()));
    return false;
  }
  // Runs are in file order: find the first run holding `offset`.
  auto run = std::upper_bound(runs_.begin(), runs_.end(), offset / unitSize_,
                              [](uint64_t unit, const Run& r) { return unit < r.fileUnit; });
  --run;
  while (length > 0) {
    uint64_t runStart = run->fileUnit * unitSize_;
    uint64_t inRun = offset - runStart;
    size_t n = static_cast<size_t>(std::min<uint64_t>(length, run->count * unitSize_ - inRun));
    if (run->hole || offset >= validBytes) {
      memset(buffer, 0, n);
    } else {
      if (source.ReadAt(run->deviceUnit * unitSize_ + inRun, buffer, n) != BlockSource::Result::kOk) {
        int error = errno;
        ReportFsError(error, "Can't read allocation bitmap at byte %llu: %s\n",
                      static_cast<unsigned long long>(run->deviceUnit * unitSize_ + inRun), strerror(error));
        return false;
      }
      if (validBytes < offset + n) memset(buffer + (validBytes - offset), 0, offset + n - validBytes);
    }
    buffer += n;
    offset += n;
    length -= n;
    ++run;
  }
  return true;
}

}  // namespace orv
