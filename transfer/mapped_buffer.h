#ifndef ORV_TRANSFER_MAPPED_BUFFER_H_
#define ORV_TRANSFER_MAPPED_BUFFER_H_

#include <cstddef>

namespace orv {

// A large buffer mapped straight from the kernel, page-aligned and reading as zeros until
// written. The copies' buffers (12 MiB chunks, the 10 MiB maps) are taken this way rather
// than from malloc: a freed block of that size stays in malloc's arena, and raises the
// size below which malloc keeps freed blocks, so the agent's memory would grow with each
// copy. A mapping goes back to the system when it is released, and only the pages that
// were written count against the agent.
class MappedBuffer {
 public:
  // data() is null (errno set) when no memory can be had.
  explicit MappedBuffer(size_t bytes);
  virtual ~MappedBuffer();
  MappedBuffer(const MappedBuffer&) = delete;
  MappedBuffer& operator=(const MappedBuffer&) = delete;

  unsigned char* data() const { return data_; }
  size_t size() const { return bytes_; }

  // A mapping of `bytes` that the caller unmaps with Unmap; null with errno set.
  static unsigned char* Map(size_t bytes);
  static void Unmap(unsigned char* data, size_t bytes);

 private:
  unsigned char* data_;
  size_t bytes_;
};

}  // namespace orv

#endif  // ORV_TRANSFER_MAPPED_BUFFER_H_
