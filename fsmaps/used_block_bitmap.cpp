#include "fsmaps/used_block_bitmap.h"

#include <cerrno>
#include <cstdio>

#include "fsmaps/ext_reader.h"
#include "fsmaps/fat_reader.h"
#include "fsmaps/hfs_reader.h"
#include "fsmaps/ntfs_reader.h"
#include "fsmaps/xfs_reader.h"

namespace orv {

std::unique_ptr<FsReader> RecogniseFileSystem(BlockSource& source) {
  if (ExtReader::Probe(source)) return std::make_unique<ExtReader>(source);
  if (XfsReader::Probe(source)) return std::make_unique<XfsReader>(source);
  if (FatReader::Probe(source)) return std::make_unique<FatReader>(source);
  if (NtfsReader::Probe(source)) return std::make_unique<NtfsReader>(source);
  if (HfsReader::Probe(source)) return std::make_unique<HfsReader>(source);
  return nullptr;
}

int64_t GetUsedBlockBitmap(uint64_t bufferBytes, uint64_t startBlock, BlockSource& source, uint64_t& blockSize,
                           uint64_t& blockCount, uint8_t* buffer) {
  blockSize = 0;
  blockCount = 0;
  std::unique_ptr<FsReader> reader = RecogniseFileSystem(source);
  if (!reader) return 0;
  if (!reader->Open()) return -1;
  blockSize = reader->blockSize();
  blockCount = reader->blockCount();
  uint64_t deviceSize = source.Size();
  if (deviceSize > 0 && blockCount > deviceSize / blockSize) {
    ReportFsError(EFBIG, "The %s file system of %llu blocks of %llu bytes is larger than its device of %llu bytes\n",
                  reader->Name(), static_cast<unsigned long long>(blockCount),
                  static_cast<unsigned long long>(blockSize), static_cast<unsigned long long>(deviceSize));
    return -1;
  }
  if (blockCount < startBlock) {
    errno = EINVAL;
    perror("Invalid start block");
    return -1;
  }
  if (buffer == nullptr) {
    errno = EINVAL;
    perror("Invalid buffer");
    return -1;
  }
  PieceBitmap piece(buffer, bufferBytes, startBlock, blockCount);
  piece.Clear();
  if (piece.covered() == 0) return 0;
  if (!reader->Fill(piece)) return -1;
  return static_cast<int64_t>(piece.covered());
}

int64_t GetUsedBlockBitmap(uint64_t bufferBytes, uint64_t startBlock, const std::string& devicePath,
                           uint64_t& blockSize, uint64_t& blockCount, uint8_t* buffer) {
  blockSize = 0;
  blockCount = 0;
  FileBlockSource source(devicePath);
  if (!source.IsOpen()) {
    ReportOpenError(devicePath, source.OpenError());
    return -1;
  }
  return GetUsedBlockBitmap(bufferBytes, startBlock, source, blockSize, blockCount, buffer);
}

}  // namespace orv
