#include "aligned_buffer.h"

#include <sys/mman.h>

#include <cerrno>
#include <string>

#include "sim_error.h"

namespace orv::zelkosim {

// The buffers are mapped rather than taken from malloc: the simulator runs inside the
// agent's process, and a 16 MiB block freed back to malloc raises its dynamic mmap
// threshold, after which every capture's buffers come from whichever thread arena the
// backup thread lands in and stay resident at that arena's top. A mapping is page
// aligned and zero-filled by the kernel and goes back to it whole when freed.
AlignedBuffer::AlignedBuffer(size_t size) : size_(size) {
  size_t rounded = (size + kAlignment - 1) / kAlignment * kAlignment;
  if (rounded == 0) rounded = kAlignment;
  void* memory = ::mmap(nullptr, rounded, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    throw SimError(ENOMEM, "cannot allocate a buffer of " + std::to_string(size) + " bytes");
  }
  data_ = static_cast<char*>(memory);
  mapped_ = rounded;
}

AlignedBuffer::~AlignedBuffer() { ::munmap(data_, mapped_); }

}  // namespace orv::zelkosim
