#ifndef ORV_ZELKOSIM_ALIGNED_BUFFER_H_
#define ORV_ZELKOSIM_ALIGNED_BUFFER_H_

#include <cstddef>

namespace orv::zelkosim {

// A page-aligned, zero-filled buffer, as direct I/O needs.
class AlignedBuffer {
 public:
  static constexpr size_t kAlignment = 4096;

  explicit AlignedBuffer(size_t size);
  virtual ~AlignedBuffer();
  AlignedBuffer(const AlignedBuffer&) = delete;
  AlignedBuffer& operator=(const AlignedBuffer&) = delete;

  char* data() { return data_; }
  const char* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  char* data_ = nullptr;
  size_t size_;
  size_t mapped_ = 0;
};

}  // namespace orv::zelkosim

#endif  // ORV_ZELKOSIM_ALIGNED_BUFFER_H_
