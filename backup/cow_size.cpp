#include "backup/cow_size.h"

#include <cmath>
#include <cstdlib>

#include "daemon/logger.h"
#include "store/configs.h"

namespace orv {

uint64_t CowFileSizeMiB(uint64_t volumeSize, uint64_t blockSize, const std::string& fsType,
                        const std::string& backupId) {
  Configs configs;
  double percent = 10.0;
  std::string text;
  if (configs.get("cow_percent", text)) {
    double value = strtod(text.c_str(), nullptr);
    if (value >= 10.0 && value <= 50.0) {
      percent = value;
      LogEvent(kDebug, backupId, "config override cow percent: %f", percent);
    } else {
      LogEvent(kDebug, backupId, "config override cow percent out of range or invalid: %s", text.c_str());
    }
  }
  uint64_t cow = static_cast<uint64_t>(std::floor(static_cast<double>(volumeSize) * percent / 100.0)) >> 20;
  if (fsType == "vfat") return cow + 5 < 4096 ? cow + 5 : 4095;

  uint64_t extraBytes = (volumeSize / blockSize) * 8 + 8;
  uint64_t extra = extraBytes / 1048576 + 1;
  uint64_t max = 10240;
  if (configs.get("max_cow_megs", text)) {
    long value = strtol(text.c_str(), nullptr, 10);
    if (value < 50) {
      LogEvent(kDebug, backupId, "config override max cow megs too small or invalid %s", text.c_str());
    } else {
      max = static_cast<uint64_t>(value);
      LogEvent(kDebug, backupId, "config override max cow megs %lu", static_cast<unsigned long>(max));
    }
  }
  uint64_t result = (cow < max ? cow : max) + extra;
  LogEvent(kDebug, backupId, "volume size %ld bytes, setting cow file size to %d megs, extra allocation %d megs",
           static_cast<long>(volumeSize), static_cast<int>(result), static_cast<int>(extra));
  return result;
}

}  // namespace orv
