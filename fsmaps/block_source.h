#ifndef ORV_FSMAPS_BLOCK_SOURCE_H_
#define ORV_FSMAPS_BLOCK_SOURCE_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace orv {

// Where a used-block reader takes its bytes from: the raw snapshot device in the
// agent, or a byte span in tests and fuzz targets, so that every on-disk parser runs
// unchanged on both. Reads never go past what the source holds.
class BlockSource {
 public:
  enum class Result { kOk, kSeekFailed, kReadFailed };

  virtual ~BlockSource();
  // Reads exactly `length` bytes at byte `offset`. On failure errno says why (EIO for
  // a short read).
  virtual Result ReadAt(uint64_t offset, void* buffer, size_t length) = 0;
  // Size in bytes; 0 when the source cannot tell.
  virtual uint64_t Size() const = 0;
};

// A device or image file, read with plain lseek and read; the descriptor is closed
// with the object.
class FileBlockSource : public BlockSource {
 public:
  explicit FileBlockSource(const std::string& path);
  ~FileBlockSource() override;
  FileBlockSource(const FileBlockSource&) = delete;
  FileBlockSource& operator=(const FileBlockSource&) = delete;

  bool IsOpen() const { return fd_ >= 0; }
  // errno of the failed open.
  int OpenError() const { return openError_; }
  Result ReadAt(uint64_t offset, void* buffer, size_t length) override;
  uint64_t Size() const override { return size_; }

 private:
  int fd_ = -1;
  int openError_ = 0;
  uint64_t size_ = 0;
};

// Bytes held by the caller, who keeps them alive while the source is used. An offset
// past the end fails like a seek past the end of a block device.
class MemoryBlockSource : public BlockSource {
 public:
  MemoryBlockSource(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  ~MemoryBlockSource() override;
  Result ReadAt(uint64_t offset, void* buffer, size_t length) override;
  uint64_t Size() const override { return size_; }

 private:
  const uint8_t* data_;
  size_t size_;
};

}  // namespace orv

#endif  // ORV_FSMAPS_BLOCK_SOURCE_H_
