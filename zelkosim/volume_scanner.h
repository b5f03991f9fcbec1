#ifndef ORV_ZELKOSIM_VOLUME_SCANNER_H_
#define ORV_ZELKOSIM_VOLUME_SCANNER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "change_map.h"

namespace orv::zelkosim {

// What one pass over a volume does besides reading it.
struct ScanTargets {
  int image_fd = -1;                   // receives a copy of the volume; all-zero blocks stay holes
  int baseline_fd = -1;                // an earlier image to compare the volume with
  const ChangeMap* excluded = nullptr;  // blocks never reported as changed (the COW files')
};

struct ScanResult {
  ChangeMap changed;       // blocks that differ from the baseline
  uint64_t data_bytes = 0;  // bytes of non-zero blocks written to the image
  double seconds = 0;
};

// Reads a volume from start to end in large chunks with direct I/O, copying it into an
// image file and/or comparing it with a baseline image, 4096-byte block by block. The
// device is read by a second thread so that reading overlaps comparing and writing.
class VolumeScanner {
 public:
  static constexpr size_t kChunk = 16 << 20;

  // `deviceFd` is open with O_DIRECT; `progress` receives a line every tenth of the way.
  VolumeScanner(int deviceFd, uint64_t volumeBytes, std::string name,
                std::function<void(const std::string&)> progress);
  virtual ~VolumeScanner() = default;

  ScanResult run(const ScanTargets& targets);

  // Whether `length` bytes are all zero.
  static bool IsZero(const char* data, size_t length);

 private:
  void process(const char* chunk, size_t length, uint64_t offset, char* baseline, const ScanTargets& targets,
               ScanResult& result);

  int device_fd_;
  uint64_t volume_bytes_;
  std::string name_;
  std::function<void(const std::string&)> progress_;
};

}  // namespace orv::zelkosim

#endif  // ORV_ZELKOSIM_VOLUME_SCANNER_H_
