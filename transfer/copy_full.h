#ifndef ORV_TRANSFER_COPY_FULL_H_
#define ORV_TRANSFER_COPY_FULL_H_

#include "transfer/copy_job.h"

namespace orv {

class IscsiBlockDevice;

// Chunk size of every copy: the largest read of the snapshot and the largest write to
// the target.
constexpr size_t kCopyChunkBytes = 12582912;
// One piece of the used-block bitmap.
constexpr size_t kBitmapBufferBytes = 10485760;

// Streams the whole snapshot into the image. True only when every chunk was written
// and the copy was not cancelled.
bool CopyFullAllBlocks(CopyJob& job, IscsiBlockDevice& device);
// Copies only the blocks the file system uses, leaving out the COW files' blocks; each
// run of used blocks goes to the same offset in the image.
bool CopyFullUsedBlocks(CopyJob& job, IscsiBlockDevice& device);

}  // namespace orv

#endif  // ORV_TRANSFER_COPY_FULL_H_
