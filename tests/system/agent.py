"""orvd as a process on a temporary root: the ORVD_* variables keep it off /etc/zelko, /var/run and /proc."""
import os
import signal
import socket
import sqlite3
import ssl
import subprocess
import sys
import time

SOURCE_DIR = os.environ.get("ORV_SOURCE_DIR", os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..")))
sys.path.insert(0, os.path.join(SOURCE_DIR, "tools", "appliance"))

import pki  # noqa: E402
from appliance_client import ApplianceClient, ConnectionFailure  # noqa: E402,F401

ORVD = os.environ.get("ORVD_BIN", os.path.join(SOURCE_DIR, "build", "orvd"))


def free_port():
    """A TCP port free right now on all addresses (as the agent binds them)."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("0.0.0.0", 0))
        return s.getsockname()[1]


def accepts_tls(port):
    """True when a TLS handshake on the port completes."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=2) as raw, context.wrap_socket(raw):
            return True
    except (OSError, ssl.SSLError):
        return False


def wait_for(predicate, timeout=30, interval=0.1, what="condition"):
    deadline = time.time() + timeout
    while time.time() < deadline:
        value = predicate()
        if value:
            return value
        time.sleep(interval)
    raise AssertionError("timed out after %ss waiting for %s" % (timeout, what))


class Agent:
    def __init__(self, root):
        self.root = str(root)
        self.etc_dir = os.path.join(self.root, "etc")
        self.cert_dir = os.path.join(self.etc_dir, "certs")
        self.pid_file = os.path.join(self.root, "orvd.pid")
        self.db_path = os.path.join(self.etc_dir, "orvd.sqlite")
        self.output_path = os.path.join(self.root, "orvd.out")
        os.makedirs(self.cert_dir, exist_ok=True)
        # Leaks are reported by the unit tests; a daemon killed by a test is not a leak.
        self.env = dict({"ASAN_OPTIONS": "detect_leaks=0"}, **os.environ)
        self.env.update(ORVD_ETC_DIR=self.etc_dir, ORVD_PID_FILE=self.pid_file,
                        ORVD_DRIVER_INFO=os.path.join(self.root, "zelko-info"),
                        ORVD_DRIVER_DEV=os.path.join(self.root, "dev", "zelko"),
                        ORVD_CA_URL="https://127.0.0.1:9/certApi.php")
        self.process = None
        self.port = None

    def install_identity(self, authority):
        key, cert = authority.server_identity()
        for name, text in (("server.key", key), ("server.pem", cert), ("ca.crt", authority.pem)):
            with open(os.path.join(self.cert_dir, name), "w") as f:
                f.write(text)

    def run(self, *args, timeout=60, user=None):
        """Runs orvd to completion (commands, help, failing starts)."""
        return subprocess.run([ORVD] + list(args), env=self.env, cwd=self.root, capture_output=True, text=True,
                              timeout=timeout, user=user)

    def set_config(self, key, value):
        result = self.run("set_config", key, str(value))
        assert result.returncode == 1, result.stdout + result.stderr
        return result

    def _check_running(self):
        if self.process is not None and self.process.poll() is not None:
            raise RuntimeError("orvd exited with %d:\n%s" % (self.process.returncode, self.output()))

    def start(self, *args, wait=True, timeout=30):
        """Starts orvd -d in the foreground; waits for its PID file unless told not to."""
        with open(self.output_path, "a") as out:
            self.process = subprocess.Popen([ORVD, "-d"] + list(args), env=self.env, cwd=self.root, stdout=out,
                                            stderr=subprocess.STDOUT, text=True)

        def took_pid_file():
            self._check_running()
            return os.path.exists(self.pid_file) and open(self.pid_file).read().strip() == str(self.process.pid)
        if wait:
            wait_for(took_pid_file, timeout=timeout, interval=0.05, what="orvd to take its PID file")
        return self.process

    def serve(self):
        """Sets a free rest_port with set_config, starts, waits for TLS there."""
        self.port = free_port()
        self.set_config("rest_port", self.port)
        self.start()
        self.wait_listening(self.port)
        return self.port

    def wait_listening(self, port, timeout=30):
        wait_for(lambda: self._check_running() or accepts_tls(port), timeout=timeout,
                 what="orvd to accept TLS on port %d" % port)

    def client(self, cert_files=None, port=None, timeout=60):
        """cert_files: (cert, key), or None for a client without one; the agent is verified against its ca.crt."""
        cert, key = cert_files or (None, None)
        return ApplianceClient("127.0.0.1", port or self.port, cert=cert, key=key,
                               ca=os.path.join(self.cert_dir, "ca.crt"), timeout=timeout)

    def config(self, key):
        rows = self.query("SELECT value FROM config WHERE name = ?", (key,))
        return rows[0][0] if rows else None

    def output(self):
        try:
            with open(self.output_path) as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def sanitizer_report(self):
        text = self.output()
        for marker in ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:", "WARNING: ThreadSanitizer"):
            if marker in text:
                at = text.find(marker)
                return text[max(0, at - 200):at + 4000]
        return ""

    def stop(self, sig=signal.SIGTERM, timeout=60):
        """Signals the daemon we started and waits for it; returns its exit status."""
        if self.process is None:
            return None
        if self.process.poll() is None:
            self.process.send_signal(sig)
            try:
                self.process.wait(timeout=timeout)
            except subprocess.TimeoutExpired:
                self.kill()
                raise
        code, self.process = self.process.returncode, None
        return code

    def kill(self):
        if self.process is not None and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.process = None

    def query(self, sql, params=()):
        # Closed at once: left to the collector it keeps the file system busy.
        db = sqlite3.connect(self.db_path, timeout=30)
        try:
            with db:
                return db.execute(sql, params).fetchall()
        finally:
            db.close()

    def logs(self):
        return [row[0] for row in self.query("SELECT message FROM logs ORDER BY id")]
