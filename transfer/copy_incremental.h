#ifndef ORV_TRANSFER_COPY_INCREMENTAL_H_
#define ORV_TRANSFER_COPY_INCREMENTAL_H_

#include "transfer/copy_job.h"

namespace orv {

class IscsiBlockDevice;

// 4096-byte blocks of the change map.
constexpr uint64_t kChangeBlockBytes = 4096;
// Bytes of change map read at a time.
constexpr size_t kChangeMapChunkBytes = 10485760;

// Sends only the blocks the change map (overlaid with the incremental history) marks
// as changed. Sets job.changeMapBroken when the map itself could not be read, so that
// the caller knows the history can no longer be trusted.
bool CopyIncrementalAllBlocks(CopyJob& job, IscsiBlockDevice& device);

}  // namespace orv

#endif  // ORV_TRANSFER_COPY_INCREMENTAL_H_
