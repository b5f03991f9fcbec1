#!/usr/bin/python3
"""Development certificate authority: the HTTPS endpoint an agent enrols with.

An agent whose certificate files are missing sends two JSON documents by HTTPS PUT to
/certApi.php: "retrieveCaCert" (answered with the authority's certificate, which the
agent stores as ca.crt) and "issueCert" with the agent token and a PEM certificate
request (answered with the signed server certificate, stored as server.pem).

This server answers both from a local authority (pki.Authority). For tests it can
also answer badly, per action: see MODES. Use it as a module:

    with CertificateAuthorityServer(state_dir=...) as ca:
        env["ORVD_CA_URL"] = ca.url
        ca.set_mode("failure", action="issueCert")

or as a command (see --help); it then runs until SIGINT or SIGTERM.
"""
import argparse
import http.server
import json
import os
import shutil
import signal
import ssl
import sys
import tempfile
import threading

from cryptography import x509

import pki

# The token the agents of this build send with every certificate request.
DEFAULT_TOKEN = "bLNkyyAslIeDwUrxCpj6G4pcdvavYyR2mj7fYvjUxxcp8Z"
API_PATH = "/certApi.php"
CONTROL_PATH = "/control"
ACTIONS = ("retrieveCaCert", "issueCert")
MAX_REQUEST_BYTES = 1024 * 1024
OVERSIZED_BYTES = 50 * 1024 * 1024

MODES = {
    "normal": "answer as a working authority",
    "failure": 'status "failure" with a message',
    "empty": 'status "success" with an empty certificate',
    "nocert": 'status "success" without a certificate member',
    "notpem": 'status "success" with a certificate that is not PEM',
    "mismatch": "a properly signed certificate for another key (issueCert)",
    "garbage": "a body that is not JSON",
    "truncated": "the normal document cut in half (a complete HTTP answer)",
    "disconnect": "half of the normal body, then the connection is closed",
    "oversized": "a 50 MiB document",
    "slow": "the normal answer, a few bytes at a time over about two seconds",
    "hang": "read the request and never answer",
}

_TLS_VERSIONS = {"1.2": ssl.TLSVersion.TLSv1_2, "1.3": ssl.TLSVersion.TLSv1_3}


class _HttpServer(http.server.ThreadingHTTPServer):
    daemon_threads = True
    # Connections are handed over to threads unencrypted; each thread does its own TLS
    # handshake, so that a client that never completes one cannot stop the others.
    ca = None

    def finish_request(self, request, client_address):
        request.settimeout(30)
        try:
            connection = self.ca.tls_context.wrap_socket(request, server_side=True)
        except (ssl.SSLError, OSError):
            return
        try:
            self.RequestHandlerClass(connection, client_address, self)
        finally:
            try:
                connection.unwrap().close()
            except (ssl.SSLError, OSError, ValueError):
                connection.close()


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "orv-dev-ca/1.0"

    def log_message(self, fmt, *args):
        if self.server.ca.verbose:
            sys.stderr.write("ca_server: %s %s\n" % (self.address_string(), fmt % args))

    def do_PUT(self):
        if self.path == API_PATH:
            self.server.ca._answer_api(self)
        elif self.path == CONTROL_PATH:
            self.server.ca._answer_control(self)
        else:
            self.send_document(404, {"status": "failure", "message": "Unknown path %s." % self.path})

    def do_GET(self):
        self.send_document(405, {"status": "failure", "message": "Use PUT with a JSON document."})

    do_POST = do_GET

    def read_body(self):
        length = self.headers.get("Content-Length")
        if length is None or not length.isdigit():
            return None
        length = int(length)
        if length > MAX_REQUEST_BYTES:
            return None
        return self.rfile.read(length)

    def send_body(self, status, body, declared=None, pieces=1, delay=0.0, close=False):
        """Sends `body`; `declared` overrides Content-Length, `pieces` and `delay` dribble it."""
        try:
            self.send_response(status)
            self.send_header("Content-Type", "application/json")
            self.send_header("Content-Length", str(len(body) if declared is None else declared))
            if close:
                self.send_header("Connection", "close")
            self.end_headers()
            step = max(1, -(-len(body) // pieces))
            for start in range(0, len(body), step):
                if delay and self.server.ca._stopping.wait(delay):
                    break
                self.wfile.write(body[start:start + step])
            self.wfile.flush()
        except OSError:
            pass
        if close:
            self.close_connection = True

    def send_document(self, status, document):
        self.send_body(status, json.dumps(document).encode())


class CertificateAuthorityServer:
    """The development authority's HTTPS endpoint on a loopback port."""

    def __init__(self, state_dir=None, port=0, host="127.0.0.1", token=DEFAULT_TOKEN, modes=None,
                 tls_min=None, tls_max=None, authority=None, verbose=False):
        self.host = host
        self.requested_port = port
        self.token = token
        self.verbose = verbose
        self.modes = {}
        for action, mode in (modes or {}).items():
            self.set_mode(mode, action)
        self.requests = []
        self._lock = threading.Lock()
        self._stopping = threading.Event()
        self._own_dir = state_dir is None
        self.state_dir = tempfile.mkdtemp(prefix="orv-ca-") if state_dir is None else str(state_dir)
        os.makedirs(self.state_dir, exist_ok=True)
        self.authority = authority or self._load_or_create_authority()
        self.tls_context = self._make_tls_context(tls_min, tls_max)
        self._httpd = None
        self._thread = None

    # -- set-up ---------------------------------------------------------------------
    def _load_or_create_authority(self):
        key_path = os.path.join(self.state_dir, "ca.key")
        cert_path = os.path.join(self.state_dir, "ca.crt")
        if os.path.exists(key_path) and os.path.exists(cert_path):
            return pki.Authority.load(key_path, cert_path)
        authority = pki.Authority()
        authority.save(key_path, cert_path)
        return authority

    def _make_tls_context(self, tls_min, tls_max):
        # The endpoint's own certificate, from the same authority. Agents do not verify its
        # chain, but libcurl still compares its names with the URL's host.
        key = pki.make_key()
        names = ["localhost", "127.0.0.1"] + ([self.host] if self.host not in ("localhost", "127.0.0.1") else [])
        cert = self.authority.issue([("O", "Zelko"), ("CN", "localhost")], key.public_key(), server=True,
                                    alt_names=names)
        key_path = os.path.join(self.state_dir, "tls.key")
        cert_path = os.path.join(self.state_dir, "tls.pem")
        with open(key_path, "w") as f:
            f.write(pki.key_pem(key))
        os.chmod(key_path, 0o600)
        with open(cert_path, "w") as f:
            f.write(pki.cert_pem(cert) + self.authority.pem)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        if tls_min:
            context.minimum_version = _TLS_VERSIONS[tls_min]
        if tls_max:
            context.maximum_version = _TLS_VERSIONS[tls_max]
        context.load_cert_chain(cert_path, key_path)
        return context

    # -- life cycle -----------------------------------------------------------------
    def start(self):
        self._stopping.clear()
        self._httpd = _HttpServer((self.host, self.requested_port), _Handler)
        self._httpd.ca = self
        self._thread = threading.Thread(target=self._httpd.serve_forever, kwargs={"poll_interval": 0.1},
                                        name="ca_server", daemon=True)
        self._thread.start()
        return self

    def stop(self):
        self._stopping.set()
        if self._httpd is not None:
            self._httpd.shutdown()
            self._httpd.server_close()
            self._thread.join()
            self._httpd = None
        if self._own_dir:
            shutil.rmtree(self.state_dir, ignore_errors=True)

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()

    @property
    def port(self):
        return self._httpd.server_address[1]

    @property
    def url(self):
        return "https://%s:%d%s" % (self.host, self.port, API_PATH)

    def set_mode(self, mode, action=None):
        """Sets how `action` (or both actions) is answered from now on."""
        if mode not in MODES:
            raise ValueError("unknown mode %r" % mode)
        for name in ([action] if action else ACTIONS):
            if name not in ACTIONS:
                raise ValueError("unknown action %r" % name)
            self.modes[name] = mode

    def requests_for(self, action):
        with self._lock:
            return [r for r in self.requests if isinstance(r["document"], dict) and r["document"].get("action") == action]

    # -- answers --------------------------------------------------------------------
    def _answer_control(self, handler):
        body = handler.read_body()
        try:
            document = json.loads(body)
            self.set_mode(document["mode"], document.get("action"))
        except (TypeError, ValueError, KeyError) as e:
            handler.send_document(400, {"status": "failure", "message": "Bad control document: %s" % e})
            return
        handler.send_document(200, {"status": "success", "modes": self.modes})

    def _answer_api(self, handler):
        body = handler.read_body()
        if body is None:
            handler.send_document(413, {"status": "failure", "message": "Missing or oversized request body."})
            return
        text = body.decode("utf-8", "replace")
        try:
            document = json.loads(text)
        except ValueError:
            document = None
        with self._lock:
            self.requests.append({"method": handler.command, "path": handler.path,
                                  "headers": list(handler.headers.items()), "body": text,
                                  "document": document, "tls": handler.connection.version()})
        if not isinstance(document, dict):
            handler.send_document(400, {"status": "failure", "message": "Request is not a JSON object."})
            return
        action = document.get("action")
        mode = self.modes.get(action, "normal")
        if action not in ACTIONS:
            handler.send_document(200, {"status": "failure", "message": "Unknown action %r." % action})
            return
        if mode == "hang":
            self._stopping.wait()
            handler.close_connection = True
            return
        if mode in ("failure", "empty", "nocert", "notpem", "garbage", "oversized"):
            self._send_canned(handler, action, mode)
            return
        status, answer = self._proper_answer(action, document, mismatch=(mode == "mismatch"))
        body = json.dumps(answer).encode()
        if mode == "truncated":
            handler.send_body(status, body[:len(body) // 2])
        elif mode == "disconnect":
            handler.send_body(status, body[:len(body) // 2], declared=len(body), close=True)
        elif mode == "slow":
            handler.send_body(status, body, pieces=40, delay=0.05)
        else:
            handler.send_body(status, body)

    def _send_canned(self, handler, action, mode):
        if mode == "failure":
            handler.send_document(200, {"status": "failure",
                                        "message": "The development CA refuses %s for this test." % action})
        elif mode == "empty":
            handler.send_document(200, {"status": "success", "certificate": ""})
        elif mode == "nocert":
            handler.send_document(200, {"status": "success"})
        elif mode == "notpem":
            handler.send_document(200, {"status": "success", "certificate": "this is not a certificate"})
        elif mode == "garbage":
            handler.send_body(200, b"<html><body>502 Bad Gateway</body></html>")
        elif mode == "oversized":
            head = b'{"status":"success","certificate":"'
            tail = b'"}'
            filler = b"A" * (1024 * 1024)
            count = OVERSIZED_BYTES // len(filler)
            try:
                handler.send_response(200)
                handler.send_header("Content-Type", "application/json")
                handler.send_header("Content-Length", str(len(head) + count * len(filler) + len(tail)))
                handler.end_headers()
                handler.wfile.write(head)
                for _ in range(count):
                    handler.wfile.write(filler)
                handler.wfile.write(tail)
            except OSError:
                handler.close_connection = True

    def _proper_answer(self, action, document, mismatch=False):
        if document.get("caId") != "orv":
            return 200, {"status": "failure", "message": "Unknown caId %r." % document.get("caId")}
        if action == "retrieveCaCert":
            return 200, {"status": "success", "certificate": self.authority.pem}
        if document.get("key") != self.token:
            return 200, {"status": "failure", "message": "Invalid agent key."}
        request = document.get("certificateRequest")
        if not isinstance(request, str) or not request:
            return 200, {"status": "failure", "message": "Missing certificate request."}
        try:
            csr = x509.load_pem_x509_csr(request.encode())
            if not csr.is_signature_valid:
                raise ValueError("the request's signature is not valid")
        except ValueError as e:
            return 200, {"status": "failure", "message": "Invalid certificate request: %s" % e}
        public_key = pki.make_key().public_key() if mismatch else csr.public_key()
        certificate = self.authority.issue(csr.subject, public_key, server=True)
        if self.verbose:
            sys.stderr.write("ca_server: issued %s\n" % csr.subject.rfc4514_string())
        return 200, {"status": "success", "certificate": pki.cert_pem(certificate)}


def _parse_modes(values):
    modes = {}
    for value in values or []:
        action, _, mode = value.rpartition("=")
        for name in ([action] if action else ACTIONS):
            modes[name] = mode
    return modes


def main(argv=None):
    parser = argparse.ArgumentParser(
        description="Development certificate authority for orvd enrolment (HTTPS PUT %s)." % API_PATH,
        epilog="Modes: " + "; ".join("%s: %s" % item for item in MODES.items()))
    parser.add_argument("--host", default="127.0.0.1", help="address to listen on (default 127.0.0.1)")
    parser.add_argument("--port", type=int, default=0, help="port to listen on (default 0: a free one)")
    parser.add_argument("--port-file", help="write the chosen port into this file")
    parser.add_argument("--state-dir", help="keeps the authority's key and certificate (default: a temporary one)")
    parser.add_argument("--token", default=DEFAULT_TOKEN, help="agent token to accept in issueCert requests")
    parser.add_argument("--mode", action="append", metavar="[ACTION=]MODE",
                        help="answer an action (or both) in this mode; repeatable")
    parser.add_argument("--tls-min", choices=sorted(_TLS_VERSIONS), help="lowest TLS version offered")
    parser.add_argument("--tls-max", choices=sorted(_TLS_VERSIONS), help="highest TLS version offered")
    parser.add_argument("-v", "--verbose", action="store_true", help="log every request to standard error")
    args = parser.parse_args(argv)
    try:
        server = CertificateAuthorityServer(state_dir=args.state_dir, port=args.port, host=args.host,
                                            token=args.token, modes=_parse_modes(args.mode),
                                            tls_min=args.tls_min, tls_max=args.tls_max, verbose=args.verbose)
    except ValueError as e:
        parser.error(str(e))
    stop = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: stop.set())
    signal.signal(signal.SIGINT, lambda *_: stop.set())
    server.start()
    try:
        if args.port_file:
            with open(args.port_file + ".tmp", "w") as f:
                f.write("%d\n" % server.port)
            os.replace(args.port_file + ".tmp", args.port_file)
        print("ca_server: listening on %s (CA certificate %s)" % (server.url,
              os.path.join(server.state_dir, "ca.crt")), flush=True)
        while not stop.wait(0.5):
            pass
    finally:
        server.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
