# Loop devices for scripts that share the machine with others. Source this file, then:
#
#   dev=$(loop_attach IMAGE [--read-only])   attach IMAGE to a free loop device; print it
#   loop_detach DEVICE IMAGE                 detach DEVICE, but only while it holds IMAGE
#   loop_devices_of IMAGE                    the loop devices attached to IMAGE, one a line
#
# Other programs take loop devices at any moment: the free device that `losetup -f`
# finds may be gone when it is set up. losetup retries that itself; loop_attach tries
# again a few times more before it gives up, and says plainly when no device is free.

loop__backing() {
  cat "/sys/block/$(basename "$1")/loop/backing_file" 2>/dev/null
}

loop_attach() {
  local image=$1 options=(-f --show) out attempt
  [ "${2:-}" = --read-only ] && options+=(-r)
  for attempt in 1 2 3 4 5 6; do
    if out=$(losetup "${options[@]}" "$image" 2>&1); then
      echo "$out"
      return 0
    fi
    case "$out" in
      *"cannot find an unused loop device"* | *"No such device"* | *"could not find any free loop device"*)
        # losetup already asked the kernel for a new device: there is none to be had.
        echo "no free loop device for $image: $out" >&2
        echo "  in use: $(losetup -l -n -O NAME 2>/dev/null | tr '\n' ' ')" >&2
        echo "  free one ('losetup -d /dev/loopN' of a device you own) or allow more (modprobe loop max_loop=64)" >&2
        return 1
        ;;
    esac
    sleep "0.$((attempt * 2))"
  done
  echo "cannot attach $image to a loop device: $out" >&2
  return 1
}

loop_detach() {
  local device=$1 real tries
  real=$(realpath -m "$2")
  for tries in $(seq 1 50); do
    [ "$(loop__backing "$device")" = "$real" ] || return 0
    losetup -d "$device" 2>/dev/null
    sleep 0.1
  done
  [ "$(loop__backing "$device")" != "$real" ]
}

loop_devices_of() {
  losetup -j "$1" 2>/dev/null | cut -d: -f1
}
