#ifndef ORV_TRANSFER_IMAGE_CHECKSUM_H_
#define ORV_TRANSFER_IMAGE_CHECKSUM_H_

#include <cstdint>
#include <string>

#include "transfer/iscsi_block_device.h"

namespace orv {

class AllBackupStatus;

// What the checksum and reachability services need of a backup volume: where its image
// lives, whose log events they are, and where errors for the appliance go (may be null).
struct VolumeImage {
  IscsiTarget target;
  int64_t imageOffset = 0;  // the image's first byte on the LUN
  std::string backupId;
  AllBackupStatus* status = nullptr;
};

// Bytes at the start of an image that identify it.
constexpr size_t kImageChecksumBytes = 10485760;

// CRC32 of the first 10 MiB of the volume's image as eight lowercase hex digits, the
// digest bytes in libgcrypt's order. By it a backup tells whether the image on the target
// is still the one it left there. False (logged, and in the status) when the target
// cannot be read; the device is always disconnected before returning.
bool GetImageChecksum(const VolumeImage& volume, std::string& checksum);

// Logs in to the volume's target on `lun` once and logs out again.
bool IsTargetReachable(const VolumeImage& volume, int lun);

// IsTargetReachable on the volume's own LUN; an unreachable target puts one error naming
// its address into the status.
bool CheckTargetReachable(const VolumeImage& volume);

}  // namespace orv

#endif  // ORV_TRANSFER_IMAGE_CHECKSUM_H_
