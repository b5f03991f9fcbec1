#ifndef ORV_BACKUP_COW_SIZE_H_
#define ORV_BACKUP_COW_SIZE_H_

#include <cstdint>
#include <string>

namespace orv {

// Size in MiB of the COW file the driver allocates for a snapshot of a volume:
// cow_percent of the volume (10..50, default 10), capped by max_cow_megs (>= 50,
// default 10240), plus room for the change map (8 bytes per block). FAT volumes get the
// percentage alone, below the FAT file size ceiling.
uint64_t CowFileSizeMiB(uint64_t volumeSize, uint64_t blockSize, const std::string& fsType,
                        const std::string& backupId);

}  // namespace orv

#endif  // ORV_BACKUP_COW_SIZE_H_
