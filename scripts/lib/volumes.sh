# Loop-device volumes for scripts (demo, benchmarks). Source this file, then:
#
#   vol_make FS SIZE_MIB DIR   make DIR/FS.img, attach it to a free loop device, format it
#                              (ext2, ext3, ext4, xfs or ntfs) and mount it read-write at
#                              DIR/FS.mnt; sets VOL_FS, VOL_IMAGE, VOL_DEV, VOL_MNT, VOL_UUID
#   vol_fill MOUNTPOINT [N]    write N (default 100) small files and one 8 MiB file
#   vol_teardown IMAGE MOUNTPOINT [DEVICE]
#                              thaw, unmount, detach (only while DEVICE still holds IMAGE),
#                              remove the image; fails when anything is left behind
#
# vol_make tears down what it made when it fails half way. ntfs is mounted through
# ntfs-3g, which names the loop device as its mount source.

vol__mounted() {
  local point
  point=$(realpath -m "$1")
  awk -v p="$point" '{ gsub(/\\040/, " ", $5); if ($5 == p) found = 1 } END { exit !found }' /proc/self/mountinfo
}

vol__backing() {
  cat "/sys/block/$(basename "$1")/loop/backing_file" 2>/dev/null
}

vol_make() {
  if [ $# -ne 3 ]; then
    echo "usage: vol_make FS SIZE_MIB DIR" >&2
    return 2
  fi
  local fs=$1 size=$2 dir=$3
  case "$fs" in ext2|ext3|ext4|xfs|ntfs) ;; *) echo "vol_make: unknown file system $fs" >&2; return 2 ;; esac
  mkdir -p "$dir" || return 1
  dir=$(realpath "$dir")
  VOL_FS=$fs
  VOL_IMAGE=$dir/$fs.img
  VOL_MNT=$dir/$fs.mnt
  VOL_DEV=
  VOL_UUID=
  truncate -s "${size}M" "$VOL_IMAGE" || return 1
  if ! VOL_DEV=$(losetup -f --show "$VOL_IMAGE"); then
    vol_teardown "$VOL_IMAGE" "$VOL_MNT"
    return 1
  fi
  mkdir -p "$VOL_MNT"
  local ok=1 out
  # mkntfs warns about geometry it cannot know for a loop device: show output only on failure.
  case "$fs" in
    ext*) out=$(mkfs."$fs" -q -F -b 4096 "$VOL_DEV" 2>&1) && mount -t "$fs" "$VOL_DEV" "$VOL_MNT" || ok=0 ;;
    xfs) out=$(mkfs.xfs -q -f "$VOL_DEV" 2>&1) && mount -t xfs "$VOL_DEV" "$VOL_MNT" || ok=0 ;;
    ntfs) out=$(mkntfs -q -F -Q "$VOL_DEV" 2>&1) && ntfs-3g "$VOL_DEV" "$VOL_MNT" || ok=0 ;;
  esac
  [ "$ok" = 1 ] || printf '%s\n' "$out" >&2
  if [ "$ok" = 1 ]; then
    VOL_UUID=$(blkid -p -s UUID -o value "$VOL_DEV")
  fi
  if [ "$ok" != 1 ] || ! vol__mounted "$VOL_MNT"; then
    echo "vol_make: could not make a $fs volume on $VOL_DEV" >&2
    vol_teardown "$VOL_IMAGE" "$VOL_MNT" "$VOL_DEV"
    return 1
  fi
  echo "vol_make: $fs on $VOL_DEV mounted at $VOL_MNT"
}

vol_fill() {
  local root=$1 count=${2:-100} i
  mkdir -p "$root/small" || return 1
  for i in $(seq 1 "$count"); do
    head -c $((i * 97)) /dev/urandom > "$root/small/f$i.bin" || return 1
  done
  head -c $((8 * 1024 * 1024)) /dev/urandom > "$root/big.bin" || return 1
  sync
}

vol_teardown() {
  local image=$1 point=$2 device=${3:-} tries failed=0
  if [ -n "$point" ] && vol__mounted "$point"; then
    fsfreeze --unfreeze "$point" 2>/dev/null
    for tries in $(seq 1 40); do
      umount "$point" 2>/dev/null && break
      vol__mounted "$point" || break
      sleep 0.1
    done
    if vol__mounted "$point"; then
      echo "vol_teardown: $point stays busy; unmounting lazily" >&2
      umount -l "$point"
      failed=1
    fi
  fi
  # ntfs-3g runs in the background: wait until it lets go of the device.
  local real
  real=$(realpath -m "$image")
  local devices
  devices=$( { [ -n "$device" ] && echo "$device"; losetup -j "$image" | cut -d: -f1; } | sort -u)
  for device in $devices; do
    for tries in $(seq 1 50); do
      [ "$(vol__backing "$device")" = "$real" ] || break
      losetup -d "$device" 2>/dev/null
      sleep 0.1
    done
  done
  if [ -n "$(losetup -j "$image")" ]; then
    echo "vol_teardown: $image is still attached" >&2
    failed=1
  fi
  if [ -n "$point" ] && [ -d "$point" ] && ! vol__mounted "$point"; then
    rmdir "$point"
  fi
  rm -f "$image"
  return $failed
}
