"""Private tgtd instances serving file-backed LUNs on a free loopback port, each with its own
control port. tgtd ignores SIGTERM: stop() deletes its targets and the system, SIGKILL is
the last resort, and its control sockets are removed afterwards; a crash of the test
process takes tgtd with it (parent-death signal). Tuned mode raises the session parameters
before any login and the malloc thresholds (about 150 -> 700 MiB/s here)."""
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
TUNED_PARAMETERS = (("MaxRecvDataSegmentLength", "262144"), ("MaxXmitDataSegmentLength", "262144"),
                    ("FirstBurstLength", "262144"), ("MaxBurstLength", "262144"), ("InitialR2T", "No"))


def _die_with_parent():
    ctypes.CDLL("libc.so.6", use_errno=True).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def _free_control_port():
    for _ in range(1000):
        n = random.randint(10000, 32767)  # tgtd takes control ports up to 32767
        path = os.path.join(SOCKET_DIR, "socket.%d" % n)
        if not os.path.exists(path) and not os.path.exists(path + ".lock"):
            return n
    raise RuntimeError("no free tgtd control port")


class Tgtd:
    def __init__(self, directory=None, tuned=False):
        self._own_directory = directory is None
        self.directory = str(directory) if directory else tempfile.mkdtemp(prefix="orv-tgtd-")
        os.makedirs(self.directory, exist_ok=True)
        self.tuned = tuned
        self.port = self.control_port = self.process = None
        self._configuration = []  # tgtadm argument lists, replayed by restart()
        self._tids = []

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
        env = {k: v for k, v in os.environ.items() if k != "GLIBC_TUNABLES"}
        if self.tuned:
            env["GLIBC_TUNABLES"] = TUNABLES
        with open(os.path.join(self.directory, "tgtd.log"), "ab") as log:
            self.process = subprocess.Popen(
                ["tgtd", "-f", "-C", str(self.control_port), "--iscsi", "portal=" + self.portal],
                stdout=log, stderr=subprocess.STDOUT, env=env, preexec_fn=_die_with_parent)
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            if self.process.poll() is not None:
                self.process = None
                self._remove_sockets()
                return False
            if self.tgtadm("--op", "show", "--mode", "sys", check=False) == 0:
                try:
                    socket.create_connection(("127.0.0.1", self.port), 1).close()
                    return True
                except OSError:
                    pass
            time.sleep(0.05)
        self.kill()
        return False

    def stop(self):
        """Ends tgtd cleanly (sessions are cut); the backing files stay. True when it left by itself."""
        if not self.running:
            self.process = None
            return True
        # A LUN with a command in flight refuses deletion for a moment: go offline, try again.
        self.tgtadm("--op", "update", "--mode", "sys", "--name", "State", "-v", "offline", check=False)
        for tid in self._tids:
            for _ in range(100):
                if self.tgtadm("--lld", "iscsi", "--op", "delete", "--mode", "target", "--tid", tid, "--force",
                               check=False) == 0:
                    break
                time.sleep(0.02)
        self.tgtadm("--op", "delete", "--mode", "system", check=False)
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

    def tgtadm(self, *arguments, check=True):
        """Runs tgtadm on this instance's control port: its output, or with check=False its exit code."""
        result = subprocess.run(["tgtadm", "-C", str(self.control_port)] + [str(a) for a in arguments],
                                capture_output=True, text=True, timeout=30)
        if not check:
            return result.returncode
        if result.returncode != 0:
            raise RuntimeError("tgtadm %s: %s" % (" ".join(map(str, arguments)), result.stdout + result.stderr))
        return result.stdout

    def _configure(self, *arguments):
        self.tgtadm(*arguments)
        self._configuration.append(arguments)

    def add_target(self, tid, iqn):
        """A target every initiator may log in to."""
        self._configure("--lld", "iscsi", "--op", "new", "--mode", "target", "--tid", tid, "-T", iqn)
        self._tids.append(tid)
        for name, value in TUNED_PARAMETERS if self.tuned else ():
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
        for suffix in ("", ".lock") if self.control_port is not None else ():
            try:
                os.unlink(os.path.join(SOCKET_DIR, "socket.%d%s" % (self.control_port, suffix)))
            except FileNotFoundError:
                pass
