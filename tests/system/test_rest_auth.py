"""Who gets an answer from the agent: the TLS session check and the pairing check."""
import socket
import ssl
import time

import pytest
from cryptography import x509
from cryptography.x509.oid import NameOID

from agent import ConnectionFailure, pki, wait_for

# Every route of the agent but the two open ones, and a few that match no route.
PAIRED_ONLY = [
    ("GET", "/host"), ("POST", "/backup"), ("GET", "/backup"), ("GET", "/backup/x"), ("DELETE", "/backup/x"),
    ("GET", "/event"), ("GET", "/events"), ("GET", "/config"), ("GET", "/configuration"), ("POST", "/config"),
    ("DELETE", "/backup"), ("PUT", "/config"), ("GET", "/nothing"),
]


def test_pairing_admits_that_device_only(running_agent, appliance):
    device42, device7 = appliance(42), appliance(7)
    for method, url in PAIRED_ONLY:
        response = device42.request(method, url, "{}" if method in ("POST", "PUT") else None)
        assert (response.status, response.body) == (401, b""), (method, url, response)
    # No pairing yet: nobody is "unauthorized", there is simply no device.
    assert not [m for m in running_agent.logs() if m.startswith("Unauthorized device id")]
    assert running_agent.logs().count("401 - Unauthorized") == len(PAIRED_ONLY)
    response = device42.basichost()  # open to any caller with a certificate of the authority
    assert response.status == 200 and {"os_arch", "hostName"} <= set(response.json())

    response = device7.pair(42)  # any holder of a certificate from the authority may pair
    assert (response.status, response.body, response.content_type) == (201, b"", "text/plain")
    assert running_agent.query("SELECT id FROM device") == [(42,)]
    running_agent.set_config("log_level", 3)
    running_agent.set_config("log_days_to_keep", 30)
    assert device42.get_config().status == 200
    response = device7.get_config()
    assert (response.status, response.body) == (401, b"")
    assert running_agent.query("SELECT level FROM logs WHERE message = 'Unauthorized device id: 7'") == [(3,)]
    # A new pairing takes effect at the next request.
    assert device42.pair(7).status == 201
    assert device7.get_config().status == 200
    assert device42.get_config().status == 401


def test_pair_document_cases(running_agent, appliance):
    client = appliance(42)
    for body, status in [('{"deviceID": 0}', 500), ('{"deviceID": "abc"}', 500), ('{"other": 42}', 500),
                         ('[42]', 400), ('{"deviceID": 4', 400), ('', 400)]:
        response = client.request("POST", "/pair", body)
        assert response.status == status, (body, response)
        assert running_agent.query("SELECT id FROM device") == [], body
    assert running_agent.logs().count("Pair handler exception: Invalid device id.") == 3
    assert 'Invalid JSON: {"deviceID": 4' in running_agent.logs()
    # A quoted number, a fraction and blanks inside a number (valid once stripped).
    for body, paired in [('{"deviceID": "42"}', 42), ('{"deviceID": 9.9}', 9), ('{ "deviceID" : 1 2 }', 12)]:
        assert client.request("POST", "/pair", body).status == 201, body
        assert running_agent.query("SELECT id FROM device") == [(paired,)]
    assert "Pair request. Device id: 12" in running_agent.logs()


def _raw_request(port, cert_files, pieces, read=True):
    """Sends raw bytes over mutual TLS; returns what came back before the agent closed."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    context.load_cert_chain(*cert_files)
    received = b""
    with socket.create_connection(("127.0.0.1", port), timeout=30) as raw, context.wrap_socket(raw) as tls:
        for piece in pieces:
            tls.sendall(piece)
            time.sleep(0.05)
        try:
            while read and (chunk := tls.recv(65536)):
                received += chunk
        except (ConnectionError, ssl.SSLError):
            pass
    return received


def test_callers_methods_and_bodies_the_agent_does_not_accept_get_no_response(
        running_agent, appliance, authority, twin_authority, foreign_authority, client_files):
    client = appliance(42)
    assert client.pair(42).status == 201
    running_agent.set_config("log_level", 3)
    running_agent.set_config("log_days_to_keep", 30)
    for files, line in [(None, "Invalid peer certificate during request."),
                        (client_files(foreign_authority, 42), "Certificate issuer mismatch during request."),
                        (client_files(authority, ""), "Invalid device id during request.")]:  # empty CN
        with pytest.raises(ConnectionFailure):
            running_agent.client(files).get_config()
        assert line in running_agent.logs()
    # Another authority whose CN, O and OU are the same passes the issuer test.
    assert running_agent.client(client_files(twin_authority, 42)).get_config().status == 200

    for method in ("PATCH", "HEAD", "OPTIONS"):
        with pytest.raises(ConnectionFailure):
            client.request(method, "/config")
    assert "Invalid method during request." in running_agent.logs()
    with pytest.raises(ConnectionFailure):
        client.request("GET", "/config", body="{}")
    assert "Invalid GET request. Data exists in body." in running_agent.logs()

    # A body that ends before its declared length: the connection ends, nothing else.
    files = client_files(authority, 42)
    request = b"POST /pair HTTP/1.1\r\nHost: agent\r\nContent-Length: 100\r\n\r\n{\"deviceID\": 7"
    _raw_request(running_agent.port, files, [request], read=False)
    assert running_agent.query("SELECT id FROM device") == [(42,)]
    # A body sent in pieces reaches the router whole.
    body = b'{"deviceID": 4242}'
    head = b"POST /pair HTTP/1.1\r\nHost: agent\r\nConnection: close\r\nContent-Length: %d\r\n\r\n" % len(body)
    reply = _raw_request(running_agent.port, files, [head] + [body[i:i + 3] for i in range(0, len(body), 3)])
    assert reply.startswith(b"HTTP/1.1 201") and reply.endswith(b"\r\n\r\n"), reply
    assert b"\r\nContent-Type: text/plain\r\n" in reply
    assert running_agent.query("SELECT id FROM device") == [(4242,)]
    assert appliance(4242).request("PUT", "/config", "{}").status == 400


def test_device_id_comes_from_the_subject_common_name(running_agent, authority, appliance, tmp_path):
    """The parsing is a unit case; here the certificate's own DN text, escapes included."""
    cn, ou, o = NameOID.COMMON_NAME, NameOID.ORGANIZATIONAL_UNIT_NAME, NameOID.ORGANIZATION_NAME

    def status_of(name, *rdns):
        key = pki.make_key()
        subject = x509.Name([x509.RelativeDistinguishedName([x509.NameAttribute(*a) for a in rdn]) for rdn in rdns])
        (tmp_path / (name + ".key")).write_text(pki.key_pem(key))
        (tmp_path / (name + ".pem")).write_text(pki.cert_pem(authority.issue(subject, key.public_key(), server=False)))
        files = (str(tmp_path / (name + ".pem")), str(tmp_path / (name + ".key")))
        return running_agent.client(files).get_config().status

    assert appliance(1).pair(7).status == 201
    running_agent.set_config("log_level", 3)
    running_agent.set_config("log_days_to_keep", 30)
    assert status_of("multi-valued", [(ou, "x"), (cn, "DEVICEID:7")]) == 200
    assert status_of("escapes", [(o, "Acme, Inc.")], [(ou, "R+D")], [(cn, "DEVICEID:7")]) == 200
    assert status_of("plain-number", [(cn, "7")]) == 200
    # Separators inside a value never start a component: these belong to device 7 whatever they pretend.
    assert appliance(8).pair(42).status == 201
    assert status_of("comma", [(cn, "DEVICEID:7,CN=DEVICEID:42")]) == 401
    assert status_of("plus", [(cn, "DEVICEID:7+CN=DEVICEID:42")]) == 401
    assert running_agent.logs().count("Unauthorized device id: 7") == 2
    assert status_of("huge", [(cn, "DEVICEID:99999999999")]) == 401
    assert "Unauthorized device id: 1215752191" in running_agent.logs()
    assert appliance(42).get_config().status == 200


def test_authority_names_with_escaped_separators(agent_root, client_files):
    escaped = pki.Authority(name=[("C", "US"), ("O", "Zelko, Inc."), ("OU", "Device+Agent CA"), ("CN", "Zelko CA")])
    # Same three attributes read naively (split at every comma and plus): not the same authority.
    split = pki.Authority(name=[("C", "US"), ("O", "Zelko"), ("OU", "Device"), ("CN", "Zelko CA")])
    agent_root.install_identity(escaped)
    agent_root.serve()
    assert agent_root.client(client_files(escaped, 5)).pair(5).status == 201
    agent_root.set_config("log_level", 3)
    agent_root.set_config("log_days_to_keep", 30)
    assert agent_root.client(client_files(escaped, 5)).get_config().status == 200
    with pytest.raises(ConnectionFailure):
        agent_root.client(client_files(split, 5)).get_config()
    wait_for(lambda: "Certificate issuer mismatch during request." in agent_root.logs(), timeout=5)
