#include "transfer/mapped_buffer.h"

#include <sys/mman.h>

namespace orv {

MappedBuffer::MappedBuffer(size_t bytes) : data_(Map(bytes)), bytes_(bytes) {}

MappedBuffer::~MappedBuffer() { Unmap(data_, bytes_); }

unsigned char* MappedBuffer::Map(size_t bytes) {
  if (bytes == 0) return nullptr;
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? nullptr : static_cast<unsigned char*>(memory);
}

void MappedBuffer::Unmap(unsigned char* data, size_t bytes) {
  if (data != nullptr) munmap(data, bytes);
}

}  // namespace orv
