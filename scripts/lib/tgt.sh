# Private tgtd instances for scripts (demo, bench): a tgtd on a free loopback port with its
# own control port, serving file-backed LUNs from a temporary directory.
#
#   . scripts/lib/tgt.sh
#   trap tgt_cleanup EXIT
#   tgt_start [--tuned]                    # sets TGT_PID TGT_PORT TGT_PORTAL TGT_CONTROL TGT_DIR
#   tgt_add_target 1 iqn.2024-01.net.example:image
#   tgt_add_lun 1 1 $((64 << 20))          # a sparse backing file, its path in TGT_LUN_PATH
#   tgt_add_chap 1 user secret-of-12+
#   tgt_stop | tgt_kill | tgt_restart      # cut sessions; restart keeps ports and targets
#   tgt_cleanup                            # stop and remove the backing files
#
# One instance per shell; call the functions directly, not in $( ) subshells, so that
# the instance remembers its configuration for tgt_restart. tgtd ignores SIGTERM: it is stopped through tgtadm (targets
# deleted, then "--op delete --mode system"), killed by pid only when it will not leave,
# and its control sockets under /var/run/tgtd are removed afterwards. --tuned raises the
# session parameters before any login and starts tgtd with larger malloc thresholds.

TGT_PID=""
TGT_PORT=""
TGT_PORTAL=""
TGT_CONTROL=""
TGT_DIR=""
TGT_TUNED=0
TGT_LUN_PATH=""
TGT_TIDS=()
TGT_CONFIG=()  # configuration commands, one per entry, replayed by tgt_restart

_tgt_adm() {
  tgtadm -C "$TGT_CONTROL" "$@"
}

_tgt_free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

_tgt_free_control_port() {
  local n i
  for i in $(seq 1 1000); do
    # tgtd takes control ports up to 32767.
    n=$((10000 + RANDOM % 22768))
    if [ ! -e "/var/run/tgtd/socket.$n" ] && [ ! -e "/var/run/tgtd/socket.$n.lock" ]; then
      echo "$n"
      return 0
    fi
  done
  return 1
}

_tgt_configure() {
  _tgt_adm "$@" || return 1
  TGT_CONFIG+=("$(printf '%q ' "$@")")
}

_tgt_remove_sockets() {
  [ -n "$TGT_CONTROL" ] && rm -f "/var/run/tgtd/socket.$TGT_CONTROL" "/var/run/tgtd/socket.$TGT_CONTROL.lock"
  return 0
}

_tgt_wait_exit() {  # seconds
  local deadline=$((SECONDS + $1))
  while kill -0 "$TGT_PID" 2>/dev/null; do
    [ "$SECONDS" -ge "$deadline" ] && return 1
    sleep 0.05
  done
  wait "$TGT_PID" 2>/dev/null || true
  return 0
}

_tgt_spawn() {
  local portal="portal=127.0.0.1:$TGT_PORT"
  if [ "$TGT_TUNED" = 1 ]; then
    GLIBC_TUNABLES=glibc.malloc.mmap_threshold=33554432:glibc.malloc.trim_threshold=268435456 \
      tgtd -f -C "$TGT_CONTROL" --iscsi "$portal" >>"$TGT_DIR/tgtd.log" 2>&1 &
  else
    tgtd -f -C "$TGT_CONTROL" --iscsi "$portal" >>"$TGT_DIR/tgtd.log" 2>&1 &
  fi
  TGT_PID=$!
  local deadline=$((SECONDS + 10))
  while [ "$SECONDS" -lt "$deadline" ]; do
    kill -0 "$TGT_PID" 2>/dev/null || { TGT_PID=""; return 1; }
    if _tgt_adm --op show --mode sys >/dev/null 2>&1 &&
      python3 -c "import socket, sys; socket.create_connection(('127.0.0.1', $TGT_PORT), 1)" 2>/dev/null; then
      return 0
    fi
    sleep 0.05
  done
  kill -9 "$TGT_PID" 2>/dev/null
  _tgt_wait_exit 5
  TGT_PID=""
  return 1
}

tgt_start() {
  [ "${1:-}" = "--tuned" ] && TGT_TUNED=1
  [ -n "$TGT_DIR" ] || TGT_DIR=$(mktemp -d /tmp/orv-tgtd-XXXXXX)
  local keep_port=0 attempt
  [ -n "$TGT_PORT" ] && keep_port=1
  for attempt in 1 2 3 4 5; do
    [ "$keep_port" = 1 ] || TGT_PORT=$(_tgt_free_port)
    TGT_CONTROL=$(_tgt_free_control_port) || return 1
    TGT_PORTAL="127.0.0.1:$TGT_PORT"
    _tgt_spawn && return 0
    _tgt_remove_sockets
    sleep 0.2
  done
  echo "tgt: tgtd did not come up:" >&2
  cat "$TGT_DIR/tgtd.log" >&2
  return 1
}

tgt_add_target() {  # tid iqn
  _tgt_configure --lld iscsi --op new --mode target --tid "$1" -T "$2" || return 1
  TGT_TIDS+=("$1")
  if [ "$TGT_TUNED" = 1 ]; then
    local name
    for name in MaxRecvDataSegmentLength MaxXmitDataSegmentLength FirstBurstLength MaxBurstLength; do
      _tgt_configure --lld iscsi --op update --mode target --tid "$1" --name "$name" --value 262144 || return 1
    done
    _tgt_configure --lld iscsi --op update --mode target --tid "$1" --name InitialR2T --value No || return 1
  fi
  _tgt_configure --lld iscsi --op bind --mode target --tid "$1" -I ALL
}

tgt_add_lun() {  # tid lun bytes [file]; the backing file's path in TGT_LUN_PATH
  local file=${4:-$TGT_DIR/lun-$1-$2.img}
  truncate -s "$3" "$file" || return 1
  _tgt_configure --lld iscsi --op new --mode logicalunit --tid "$1" --lun "$2" -b "$file" || return 1
  TGT_LUN_PATH=$file
}

tgt_add_chap() {  # tid user password
  _tgt_configure --lld iscsi --op new --mode account --user "$2" --password "$3" &&
    _tgt_configure --lld iscsi --op bind --mode account --tid "$1" --user "$2"
}

tgt_stop() {
  [ -n "$TGT_PID" ] || return 0
  local tid attempt clean=0
  # A LUN with a command in flight refuses deletion for a moment: go offline, try again.
  _tgt_adm --op update --mode sys --name State -v offline >/dev/null 2>&1
  for tid in "${TGT_TIDS[@]}"; do
    for attempt in $(seq 1 100); do
      _tgt_adm --lld iscsi --op delete --mode target --tid "$tid" --force >/dev/null 2>&1 && break
      sleep 0.02
    done
  done
  _tgt_adm --op delete --mode system >/dev/null 2>&1
  if _tgt_wait_exit 5; then
    clean=1
  else
    echo "tgt: tgtd $TGT_PID did not leave, killing it" >&2
    kill -9 "$TGT_PID" 2>/dev/null
    _tgt_wait_exit 5
  fi
  _tgt_remove_sockets
  TGT_PID=""
  [ "$clean" = 1 ]
}

tgt_kill() {
  [ -n "$TGT_PID" ] || return 0
  kill -9 "$TGT_PID" 2>/dev/null
  _tgt_wait_exit 5
  _tgt_remove_sockets
  TGT_PID=""
}

tgt_restart() {
  tgt_stop
  tgt_start || return 1
  local commands=("${TGT_CONFIG[@]}") command
  TGT_CONFIG=()
  for command in "${commands[@]}"; do
    eval "_tgt_configure $command" || return 1
  done
}

tgt_cleanup() {
  tgt_stop
  [ -n "$TGT_DIR" ] && rm -rf "$TGT_DIR"
  TGT_DIR=""
  return 0
}
