"""A REST client that speaks to an orvd agent the way the appliance does.

Every request goes over HTTPS with a client certificate (mutual TLS). The agent's own
certificate is verified against the authority's certificate; its host name is not
checked, as agents are reached by address. Only the Python standard library is used,
so the client runs wherever the agent's tests run.
"""
import http.client
import json
import socket
import ssl
import urllib.parse


class ConnectionFailure(Exception):
    """No HTTP answer: the connection, the TLS handshake or the request was refused."""


class Response:
    def __init__(self, status, content_type, body):
        self.status = status
        self.content_type = content_type
        self.body = body  # bytes, exactly as received

    @property
    def text(self):
        return self.body.decode("utf-8", "replace")

    def json(self):
        return json.loads(self.text)

    @property
    def ok(self):
        return 200 <= self.status < 300

    def __repr__(self):
        return "Response(%d, %r, %r)" % (self.status, self.content_type, self.body[:200])


def tls_context(cert=None, key=None, ca=None):
    """A client context: our certificate when given, the agent's verified against `ca`
    when given (no verification otherwise), host names not checked."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    if ca:
        context.load_verify_locations(cafile=ca)
        context.verify_mode = ssl.CERT_REQUIRED
    else:
        context.verify_mode = ssl.CERT_NONE
    if cert:
        context.load_cert_chain(cert, key)
    return context


def parse_agent(text, default_port=25567):
    """'host:port', 'host' or ':port' -> (host, port)."""
    host, _, port = text.rpartition(":") if ":" in text else (text, "", "")
    return host or "127.0.0.1", int(port) if port else default_port


class ApplianceClient:
    def __init__(self, host="127.0.0.1", port=25567, cert=None, key=None, ca=None, timeout=60):
        self.host = host
        self.port = int(port)
        self.timeout = timeout
        self.cert, self.key, self.ca = cert, key, ca
        self.context = tls_context(cert, key, ca)

    def at(self, port, host=None):
        """The same client, speaking to another port (after the agent moved)."""
        return ApplianceClient(host or self.host, port, self.cert, self.key, self.ca, self.timeout)

    # -- transport ------------------------------------------------------------------
    def request(self, method, path, body=None, query=None, headers=None):
        """Sends one request on a new connection; returns a Response or raises
        ConnectionFailure when no HTTP answer comes back."""
        if query:
            path += "?" + urllib.parse.urlencode([(k, str(v)) for k, v in query.items() if v is not None])
        if isinstance(body, (dict, list)):
            body = json.dumps(body)
        if isinstance(body, str):
            body = body.encode()
        connection = http.client.HTTPSConnection(self.host, self.port, timeout=self.timeout, context=self.context)
        try:
            connection.request(method, path, body=body, headers=dict(headers or {}))
            reply = connection.getresponse()
            data = reply.read()
            return Response(reply.status, reply.getheader("Content-Type"), data)
        except (ConnectionError, ssl.SSLError, socket.timeout, http.client.HTTPException, OSError) as e:
            raise ConnectionFailure("%s %s: %s: %s" % (method, path, type(e).__name__, e)) from e
        finally:
            connection.close()

    # -- the agent's resources ------------------------------------------------------
    def pair(self, device_id):
        return self.request("POST", "/pair", {"deviceID": device_id})

    def basichost(self):
        return self.request("GET", "/basichost")

    def host_inventory(self):
        return self.request("GET", "/host")

    def get_config(self):
        return self.request("GET", "/config")

    def set_config(self, rest_port=None, log_days_to_keep=None, log_level=None):
        document = {}
        for name, value in (("rest_port", rest_port), ("log_days_to_keep", log_days_to_keep),
                            ("log_level", log_level)):
            if value is not None:
                document[name] = value
        return self.request("POST", "/config", document)

    def events(self, severity=None, lines=None, backupid=None, after=None):
        return self.request("GET", "/event",
                            query={"severity": severity, "lines": lines, "backupid": backupid, "dttmafter": after})

    def backup_start(self, volumes, force_full=False, force_diff_merge=False):
        document = {"volumes": volumes}
        if force_full:
            document["forceCopyFull"] = True
        if force_diff_merge:
            document["forceDiffMerge"] = True
        return self.request("POST", "/backup", document)

    def backup_status(self, backup_id=None):
        return self.request("GET", "/backup" if backup_id is None else "/backup/" + backup_id)

    def backup_cancel(self, backup_id):
        return self.request("DELETE", "/backup/" + backup_id)
