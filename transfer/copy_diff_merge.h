#ifndef ORV_TRANSFER_COPY_DIFF_MERGE_H_
#define ORV_TRANSFER_COPY_DIFF_MERGE_H_

#include "transfer/copy_job.h"

namespace orv {

class IscsiBlockDevice;

// Brings the image on the target up to date with the snapshot by reading both side by
// side in 12 MiB chunks and rewriting only the chunks that differ.
bool CopyDiffMergeAllBlocks(CopyJob& job, IscsiBlockDevice& device);

}  // namespace orv

#endif  // ORV_TRANSFER_COPY_DIFF_MERGE_H_
