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


def test_unpaired_agent_answers_401_to_everything_but_the_open_routes(running_agent, appliance):
    client = appliance(42)
    for method, url in PAIRED_ONLY:
        body = "{}" if method in ("POST", "PUT") else None
        response = client.request(method, url, body)
        assert response.status == 401, (method, url, response)
        assert response.body == b""
    # No pairing yet: nobody is "unauthorized", there is simply no device.
    assert not [m for m in running_agent.logs() if m.startswith("Unauthorized device id")]
    assert running_agent.logs().count("401 - Unauthorized") == len(PAIRED_ONLY)
    # "/basichost" is open to any caller with a certificate of the authority.
    response = client.basichost()
    assert response.status == 200
    assert {"os_arch", "hostName"} <= set(response.json())


def test_pairing_admits_that_device_only(running_agent, appliance):
    device42, device7 = appliance(42), appliance(7)
    response = device7.pair(42)  # any holder of a certificate from the authority may pair
    assert (response.status, response.body, response.content_type) == (201, b"", "text/plain")
    assert running_agent.query("SELECT id FROM device") == [(42,)]
    running_agent.set_config("log_level", 3)
    running_agent.set_config("log_days_to_keep", 30)

    assert device42.get_config().status == 200
    response = device7.get_config()
    assert (response.status, response.body) == (401, b"")
    assert "Unauthorized device id: 7" in running_agent.logs()
    rows = running_agent.query("SELECT level FROM logs WHERE message = 'Unauthorized device id: 7'")
    assert rows == [(3,)]

    # A new pairing takes effect at the next request.
    assert device42.pair(7).status == 201
    assert device7.get_config().status == 200
    assert device42.get_config().status == 401


def test_pair_document_cases(running_agent, appliance):
    client = appliance(42)
    for body, status in [
        ('{"deviceID": 0}', 500), ('{"deviceID": -5}', 500), ('{"deviceID": "abc"}', 500),
        ('{"deviceID": [42]}', 500), ('{"deviceID": true}', 500), ('{"other": 42}', 500),
        ('[42]', 400), ('{"deviceID": 4', 400), ('', 400), ('42', 400),
    ]:
        response = client.request("POST", "/pair", body)
        assert response.status == status, (body, response)
        assert running_agent.query("SELECT id FROM device") == [], body
    logs = running_agent.logs()
    assert logs.count("Pair handler exception: Invalid device id.") == 6
    assert 'Invalid JSON: {"deviceID": 4' in logs
    # A quoted number, a fraction and blanks inside a number (valid once stripped).
    for body, paired in [('{"deviceID": "42"}', 42), ('{"deviceID": 9.9}', 9), ('{ "deviceID" : 1 2 }', 12)]:
        assert client.request("POST", "/pair", body).status == 201, body
        assert running_agent.query("SELECT id FROM device") == [(paired,)]
    assert "Pair request. Device id: 12" in running_agent.logs()


def _raw_request(port, cert_files, data, read=True):
    """Sends raw bytes over mutual TLS; returns what came back before the agent closed."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    context.load_cert_chain(*cert_files)
    with socket.create_connection(("127.0.0.1", port), timeout=30) as raw:
        with context.wrap_socket(raw) as tls:
            for piece in data if isinstance(data, list) else [data]:
                tls.sendall(piece)
                time.sleep(0.05)
            if not read:
                return b""
            received = b""
            try:
                while True:
                    chunk = tls.recv(65536)
                    if not chunk:
                        break
                    received += chunk
            except (ConnectionError, ssl.SSLError):
                pass
            return received


def test_callers_without_an_accepted_certificate_get_no_response(running_agent, authority, twin_authority,
                                                                  foreign_authority, client_files):
    assert running_agent.client(client_files(authority, 1)).pair(42).status == 201
    running_agent.set_config("log_level", 3)
    running_agent.set_config("log_days_to_keep", 30)

    with pytest.raises(ConnectionFailure):
        running_agent.client(None).basichost()
    assert "Invalid peer certificate during request." in running_agent.logs()

    with pytest.raises(ConnectionFailure):
        running_agent.client(client_files(foreign_authority, 42)).get_config()
    assert "Certificate issuer mismatch during request." in running_agent.logs()

    # Another authority whose CN, O and OU are the same passes the issuer test.
    assert running_agent.client(client_files(twin_authority, 42)).get_config().status == 200

    # A subject whose common name is empty names no device.
    with pytest.raises(ConnectionFailure):
        running_agent.client(client_files(authority, "")).get_config()
    assert "Invalid device id during request." in running_agent.logs()

    assert running_agent.client(client_files(authority, 42)).get_config().status == 200


def test_methods_and_bodies_the_agent_does_not_serve_get_no_response(running_agent, appliance, authority,
                                                                     client_files):
    client = appliance(42)
    assert client.pair(42).status == 201
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
    assert _raw_request(running_agent.port, files, request, read=False) == b""
    assert running_agent.query("SELECT id FROM device") == [(42,)]

    # A body sent in pieces reaches the router whole.
    body = b'{"deviceID": 4242}'
    head = b"POST /pair HTTP/1.1\r\nHost: agent\r\nConnection: close\r\nContent-Length: %d\r\n\r\n" % len(body)
    pieces = [head] + [body[i:i + 3] for i in range(0, len(body), 3)]
    reply = _raw_request(running_agent.port, files, pieces)
    assert reply.startswith(b"HTTP/1.1 201"), reply
    assert b"\r\nContent-Type: text/plain\r\n" in reply
    assert reply.endswith(b"\r\n\r\n")
    assert running_agent.query("SELECT id FROM device") == [(4242,)]

    assert appliance(4242).request("PUT", "/config", "{}").status == 400


def _client_with_subject(running_agent, authority, tmp_path, name, subject):
    key = pki.make_key()
    cert = authority.issue(subject, key.public_key(), server=False)
    key_path, cert_path = tmp_path / (name + ".key"), tmp_path / (name + ".pem")
    key_path.write_text(pki.key_pem(key))
    cert_path.write_text(pki.cert_pem(cert))
    return running_agent.client((str(cert_path), str(key_path)))


def test_device_id_comes_from_the_subject_common_name(running_agent, authority, appliance, tmp_path):
    assert appliance(1).pair(7).status == 201
    running_agent.set_config("log_level", 3)
    running_agent.set_config("log_days_to_keep", 30)
    cn, ou, o = NameOID.COMMON_NAME, NameOID.ORGANIZATIONAL_UNIT_NAME, NameOID.ORGANIZATION_NAME

    def subject(*rdns):
        return x509.Name([x509.RelativeDistinguishedName([x509.NameAttribute(oid, value) for oid, value in rdn])
                          for rdn in rdns])

    accepted = {
        "multi-valued": subject([(ou, "x"), (cn, "DEVICEID:7")]),
        "escapes-in-values": subject([(o, "Acme, Inc.")], [(ou, "R+D")], [(cn, "DEVICEID:7")]),
        "plain-number": subject([(cn, "7")]),
    }
    for name, value in accepted.items():
        response = _client_with_subject(running_agent, authority, tmp_path, name, value).get_config()
        assert response.status == 200, name

    # Separators inside a value are escaped and never start a component of their own:
    # these certificates belong to device 7 whatever their text pretends.
    assert appliance(8).pair(42).status == 201
    for name, value in {
        "comma": subject([(cn, "DEVICEID:7,CN=DEVICEID:42")]),
        "plus": subject([(cn, "DEVICEID:7+CN=DEVICEID:42")]),
    }.items():
        assert _client_with_subject(running_agent, authority, tmp_path, name, value).get_config().status == 401, name
    assert running_agent.logs().count("Unauthorized device id: 7") == 2

    refused = {"zero": ("DEVICEID:0", 0), "negative": ("DEVICEID:-3", -3), "text": ("DEVICEID:abc", 0),
               "huge": ("DEVICEID:99999999999", 1215752191)}
    for name, (common_name, logged) in refused.items():
        client = _client_with_subject(running_agent, authority, tmp_path, name, subject([(cn, common_name)]))
        assert client.get_config().status == 401, name
        assert "Unauthorized device id: %d" % logged in running_agent.logs(), name
    # The agent still serves its device after all of that.
    assert appliance(42).get_config().status == 200


def test_authority_names_with_escaped_separators(agent_root, client_files):
    escaped = pki.Authority(name=[("C", "US"), ("O", "Zelko, Inc."), ("OU", "Device+Agent CA"), ("CN", "Zelko CA")])
    # Same three attributes read naively (split at every comma and plus): not the same authority.
    split = pki.Authority(name=[("C", "US"), ("O", "Zelko"), ("OU", "Device"), ("CN", "Zelko CA")])
    key, cert = escaped.server_identity()
    agent_root.write_cert_files(key, cert, escaped.pem)
    agent_root.serve()
    assert agent_root.client(client_files(escaped, 5)).pair(5).status == 201
    agent_root.set_config("log_level", 3)
    agent_root.set_config("log_days_to_keep", 30)
    assert agent_root.client(client_files(escaped, 5)).get_config().status == 200
    with pytest.raises(ConnectionFailure):
        agent_root.client(client_files(split, 5)).get_config()
    wait_for(lambda: "Certificate issuer mismatch during request." in agent_root.logs(), timeout=5)
