#include "transfer/image_checksum.h"

#include <errno.h>
#include <gcrypt.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "api/all_backup_status.h"
#include "daemon/logger.h"
#include "transfer/mapped_buffer.h"

namespace orv {

namespace {

// These errors have no code of their own for the appliance; it shows the message.
constexpr int kNoErrorCode = 0;

// libgcrypt must be initialised once before its first use, from any thread.
void InitialiseGcrypt() {
  static const bool initialised = [] {
    gcry_check_version(nullptr);
    gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    return true;
  }();
  (void)initialised;
}

// Eight lowercase hex digits, or an empty text when libgcrypt gives no digest.
std::string Crc32Text(const unsigned char* data, size_t length) {
  InitialiseGcrypt();
  gcry_md_hd_t handle = nullptr;
  if (gcry_md_open(&handle, GCRY_MD_CRC32, 0) != 0) return "";
  std::unique_ptr<gcry_md_handle, void (*)(gcry_md_hd_t)> hold(handle, gcry_md_close);
  gcry_md_write(handle, data, length);
  gcry_md_ctl(handle, GCRYCTL_FINALIZE, nullptr, 0);
  const unsigned char* digest = gcry_md_read(handle, GCRY_MD_CRC32);
  if (digest == nullptr) return "";
  char text[9];
  snprintf(text, sizeof(text), "%02x%02x%02x%02x", digest[0], digest[1], digest[2], digest[3]);
  return text;
}

void SetStatusError(const VolumeImage& volume, const std::string& message) {
  if (volume.status != nullptr) volume.status->setError(message, kNoErrorCode);
}

}  // namespace

bool GetImageChecksum(const VolumeImage& volume, std::string& checksum) {
  LogEvent(kDebug, volume.backupId, "starting getImageChecksum");
  IscsiBlockDevice device(volume.target);
  if (!device.Connect()) return false;
  if (device.Seek(volume.imageOffset, 0) < 0) {
    int error = errno;
    SetStatusError(volume, "Could not seek on target device.");
    LogEvent(kError, volume.backupId, "Iscsi seek failed: %d", error);
    device.Disconnect();
    return false;
  }
  MappedBuffer buffer(kImageChecksumBytes);
  if (buffer.data() == nullptr) {
    LogEvent(kError, volume.backupId, "Read from iscsi target failed: %d read returned %d", ENOMEM, -1);
    device.Disconnect();
    return false;
  }
  int64_t bytesRead = device.ReadRetry(buffer.data(), kImageChecksumBytes);
  if (bytesRead < 1) {
    int error = errno;
    SetStatusError(volume, "Could not read from target device.");
    LogEvent(kError, volume.backupId, "Read from iscsi target failed: %d read returned %d", error,
             static_cast<int>(bytesRead));
    device.Disconnect();
    return false;
  }
  device.Disconnect();
  // The whole buffer counts, also after a short read near the end of the LUN, whose tail
  // was never written. Such a checksum need not match the next one; a mismatch only makes
  // the next backup compare the image with a diff-merge instead of trusting it.
  checksum = Crc32Text(buffer.data(), kImageChecksumBytes);
  return true;
}

bool IsTargetReachable(const VolumeImage& volume, int lun) {
  LogEvent(kDebug, volume.backupId, "Checking if target is reachable for lun: %d", lun);
  IscsiTarget target = volume.target;
  target.lun = lun;
  IscsiBlockDevice device(target);
  bool connected = device.Connect();
  if (connected) device.Disconnect();
  LogEvent(kDebug, volume.backupId, "Results of checking if target is reachable for lun: %d, %d", lun,
           connected ? 1 : 0);
  return connected;
}

bool CheckTargetReachable(const VolumeImage& volume) {
  if (IsTargetReachable(volume, volume.target.lun)) return true;
  SetStatusError(volume, "Could not connect to ISCSI target storage, check firewall settings to allow access to " +
                             volume.target.targetAddress);
  LogEvent(kError, volume.backupId, "Backup target unreachable.");
  return false;
}

}  // namespace orv
