#ifndef ZELKOBD_H_
#define ZELKOBD_H_

/* Control library of the zelkobd snapshot driver. Each call returns 0 on success and
 * non-zero on failure with errno set. The driver publishes its state in its status
 * document (/proc/zelko-info) and its snapshots as /dev/zelko<minor>. */

#ifdef __cplusplus
extern "C" {
#endif

/* Captures a point-in-time snapshot of `bdev` as device `minor`, keeping its
 * copy-on-write data in `cow` (allocated to `fallocated_space` MiB). `cache_size` 0
 * selects the driver's default. */
int zelkobd_setup_snapshot(unsigned int minor, const char* bdev, const char* cow, unsigned long fallocated_space,
                           unsigned long cache_size);

/* Turns an active snapshot into an incremental tracker: from now on the COW file's map
 * marks each 4096-byte block that changes. */
int zelkobd_transition_incremental(unsigned int minor);

/* Turns an incremental tracker into a new snapshot with a new COW file; the old COW
 * file keeps its final change map. */
int zelkobd_transition_snapshot(unsigned int minor, const char* cow, unsigned long fallocated_space);

/* Removes the device (not its COW file). */
int zelkobd_destroy(unsigned int minor);

#ifdef __cplusplus
}
#endif

#endif /* ZELKOBD_H_ */
