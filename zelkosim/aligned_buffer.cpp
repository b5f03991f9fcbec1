#include "aligned_buffer.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "sim_error.h"

namespace orv::zelkosim {

AlignedBuffer::AlignedBuffer(size_t size) : size_(size) {
  void* memory = nullptr;
  size_t rounded = (size + kAlignment - 1) / kAlignment * kAlignment;
  if (rounded == 0) rounded = kAlignment;
  if (::posix_memalign(&memory, kAlignment, rounded) != 0) {
    throw SimError(ENOMEM, "cannot allocate a buffer of " + std::to_string(size) + " bytes");
  }
  data_ = static_cast<char*>(memory);
  std::memset(data_, 0, rounded);
}

AlignedBuffer::~AlignedBuffer() { std::free(data_); }

}  // namespace orv::zelkosim
