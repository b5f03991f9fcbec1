"""Private tgtd instances: the iSCSI targets the agent writes its images to.

Each Tgtd runs on a free loopback port with its own control port and serves file-backed
LUNs from a temporary directory. It is torn down by pid: tgtd ignores SIGTERM, so its
targets are deleted and "--op delete --mode system" ends it; SIGKILL is the last resort,
and its control sockets under /var/run/tgtd are removed afterwards. A crash of the test
process takes tgtd with it (parent-death signal).

Tuned mode raises the session parameters before any login and starts tgtd with larger
malloc thresholds (about 150 -> 700 MiB/s on these machines). restart() cuts every
session and comes back with the same ports, targets and LUNs.
"""
import ctypes
import os
import random
import shutil
import signal
import socket
import subprocess
import tempfile
import time

from agent import free_port

SOCKET_DIR = "/var/run/tgtd"
TUNABLES = "glibc.malloc.mmap_threshold=33554432:glibc.malloc.trim_threshold=268435456"
TUNED_PARAMETERS = (
    ("MaxRecvDataSegmentLength", "262144"),
    ("MaxXmitDataSegmentLength", "262144"),
    ("FirstBurstLength", "262144"),
    ("MaxBurstLength", "262144"),
    ("InitialR2T", "No"),
)
PR_SET_PDEATHSIG = 1


def _die_with_parent():
    ctypes.CDLL("libc.so.6", use_errno=True).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


def _free_control_port():
    for _ in range(1000):
        n = random.randint(10000, 32767)  # tgtd takes control ports up to 32767
        path = os.path.join(SOCKET_DIR, "socket.%d" % n)
        if not os.path.exists(path) and not os.path.exists(path + ".lock"):
            return n
    raise RuntimeError("no free tgtd control port")


def _port_answers(port):
    try:
        socket.create_connection(("127.0.0.1", port), 1).close()
        return True
    except OSError:
        return False


class Tgtd:
    def __init__(self, directory=None, tuned=False):
        self._own_directory = directory is None
        self.directory = str(directory) if directory else tempfile.mkdtemp(prefix="orv-tgtd-")
        os.makedirs(self.directory, exist_ok=True)
        self.tuned = tuned
        self.port = None
        self.control_port = None
        self.process = None
        self._configuration = []  # tgtadm argument lists, replayed by restart()
        self._tids = []

    # -- life cycle -----------------------------------------------------------------
    @property
    def portal(self):
        return "127.0.0.1:%d" % self.port

    @property
    def running(self):
        return self.process is not None and self.process.poll() is None

    def start(self):
        if self.running:
            return self
        keep_port = self.port is not None
        for _ in range(5):
            if not keep_port:
                self.port = free_port()
            self.control_port = _free_control_port()
            if self._spawn():
                return self
            time.sleep(0.2)
        with open(os.path.join(self.directory, "tgtd.log")) as f:
            raise RuntimeError("tgtd did not come up:\n" + f.read())

    def _spawn(self):
        env = dict(os.environ)
        env.pop("GLIBC_TUNABLES", None)
        if self.tuned:
            env["GLIBC_TUNABLES"] = TUNABLES
        log = open(os.path.join(self.directory, "tgtd.log"), "ab")
        try:
            self.process = subprocess.Popen(
                ["tgtd", "-f", "-C", str(self.control_port), "--iscsi", "portal=" + self.portal],
                stdout=log, stderr=subprocess.STDOUT, env=env, preexec_fn=_die_with_parent)
        finally:
            log.close()
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            if self.process.poll() is not None:
                self.process = None
                self._remove_sockets()
                return False
            if self._tgtadm_status("--op", "show", "--mode", "sys") == 0 and _port_answers(self.port):
                return True
            time.sleep(0.05)
        self.kill()
        return False

    def stop(self):
        """Ends tgtd cleanly (sessions are cut); the backing files stay. True when it left by itself."""
        if not self.running:
            self.process = None
            return True
        # A LUN with a command in flight refuses deletion for a moment: go offline, try again.
        self._tgtadm_status("--op", "update", "--mode", "sys", "--name", "State", "-v", "offline")
        for tid in self._tids:
            for _ in range(100):
                if self._tgtadm_status("--lld", "iscsi", "--op", "delete", "--mode", "target", "--tid", str(tid),
                                       "--force") == 0:
                    break
                time.sleep(0.02)
        self._tgtadm_status("--op", "delete", "--mode", "system")
        clean = True
        try:
            self.process.wait(5)
        except subprocess.TimeoutExpired:
            clean = False
            self.process.kill()
            self.process.wait(5)
        self.process = None
        self._remove_sockets()
        return clean

    def kill(self):
        """Ends tgtd at once, as a crash would."""
        if self.process is not None:
            if self.process.poll() is None:
                self.process.kill()
            self.process.wait(5)
        self.process = None
        self._remove_sockets()

    def restart(self):
        """Starts tgtd again on the same ports with the same targets and LUNs."""
        self.stop()
        self.start()
        commands, self._configuration = self._configuration, []
        for arguments in commands:
            self._configure(*arguments)
        return self

    def close(self):
        self.stop()
        if self._own_directory:
            shutil.rmtree(self.directory, ignore_errors=True)

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.close()

    # -- configuration --------------------------------------------------------------
    def tgtadm(self, *arguments):
        """Runs tgtadm on this instance's control port; its output, RuntimeError on failure."""
        result = subprocess.run(["tgtadm", "-C", str(self.control_port)] + [str(a) for a in arguments],
                                capture_output=True, text=True, timeout=30)
        if result.returncode != 0:
            raise RuntimeError("tgtadm %s: %s" % (" ".join(map(str, arguments)), result.stdout + result.stderr))
        return result.stdout

    def _tgtadm_status(self, *arguments):
        return subprocess.run(["tgtadm", "-C", str(self.control_port)] + list(arguments), capture_output=True,
                              timeout=30).returncode

    def _configure(self, *arguments):
        self.tgtadm(*arguments)
        self._configuration.append(arguments)

    def add_target(self, tid, iqn):
        """A target every initiator may log in to."""
        self._configure("--lld", "iscsi", "--op", "new", "--mode", "target", "--tid", tid, "-T", iqn)
        self._tids.append(tid)
        if self.tuned:
            for name, value in TUNED_PARAMETERS:
                self._configure("--lld", "iscsi", "--op", "update", "--mode", "target", "--tid", tid, "--name", name,
                                "--value", value)
        self._configure("--lld", "iscsi", "--op", "bind", "--mode", "target", "--tid", tid, "-I", "ALL")

    def add_lun(self, tid, lun, size, path=None):
        """A LUN backed by a new sparse file of `size` bytes; returns the file's path."""
        path = str(path) if path else os.path.join(self.directory, "lun-%d-%d.img" % (tid, lun))
        with open(path, "wb") as f:
            f.truncate(size)
        self._configure("--lld", "iscsi", "--op", "new", "--mode", "logicalunit", "--tid", tid, "--lun", lun,
                        "-b", path)
        return path

    def _remove_sockets(self):
        if self.control_port is None:
            return
        for suffix in ("", ".lock"):
            try:
                os.unlink(os.path.join(SOCKET_DIR, "socket.%d%s" % (self.control_port, suffix)))
            except FileNotFoundError:
                pass
