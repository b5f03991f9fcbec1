#ifndef ORV_FSMAPS_USED_BLOCK_BITMAP_H_
#define ORV_FSMAPS_USED_BLOCK_BITMAP_H_

#include <cstdint>
#include <memory>
#include <string>

#include "fsmaps/block_source.h"
#include "fsmaps/fs_reader.h"

namespace orv {

// The used-block map of the file system on a device, one piece at a time, for the
// copies that send only used blocks.
//
//   bufferBytes  size of the caller's buffer; one piece covers at most bufferBytes * 8
//                blocks (the copies pass 10 MiB: 83,886,080 blocks). The first
//                bufferBytes bytes of the buffer are cleared before it is filled.
//   startBlock   first block of the piece. Bit k of the buffer (bit k % 8 of byte
//                k / 8, least significant bit first) stands for block startBlock + k;
//                1 = in use.
//   devicePath   the device (or image file), read with open/lseek/read only.
//   blockSize    receives the bitmap's unit in bytes: block b starts at byte
//                b * blockSize of the device. It is the file system's block (ext, XFS,
//                HFS+), cluster (NTFS, ext with bigalloc), or for FAT32 the cluster when
//                the data area starts on a cluster boundary and the sector otherwise.
//   blockCount   receives the number of blocks of the file system.
//   buffer       the caller's buffer of bufferBytes bytes; it stays the caller's.
//
// Returns the number of blocks this piece covers (bits 0 to that number - 1 are
// valid): bufferBytes * 8 for every piece but the last, then the rest. Returns 0 when
// startBlock == blockCount (nothing more) and when the device holds no file system
// known here (blockSize and blockCount are then 0). Returns -1 on error, with a
// message on standard error and errno set: EINVAL for a startBlock beyond blockCount
// ("Invalid start block") or a null buffer ("Invalid buffer"), EUCLEAN for on-disk
// structures that make no sense, EFBIG for a file system larger than supported or
// than its device, the read's errno (EIO for a short read) otherwise. A device that
// cannot be opened is an error too ("Error opening <path>"), not a file system that is
// unknown: a copy that went on would leave out every block.
//
// Recognition, first match wins: ext (magic 0xEF53 at byte 1080), XFS, FAT32, NTFS,
// HFS+/HFSX.
int64_t GetUsedBlockBitmap(uint64_t bufferBytes, uint64_t startBlock, const std::string& devicePath,
                           uint64_t& blockSize, uint64_t& blockCount, uint8_t* buffer);

// The same over any byte source, e.g. an image held in memory.
int64_t GetUsedBlockBitmap(uint64_t bufferBytes, uint64_t startBlock, BlockSource& source, uint64_t& blockSize,
                           uint64_t& blockCount, uint8_t* buffer);

// The reader for the file system on `source`, not yet opened; null when none matches.
std::unique_ptr<FsReader> RecogniseFileSystem(BlockSource& source);

}  // namespace orv

#endif  // ORV_FSMAPS_USED_BLOCK_BITMAP_H_
