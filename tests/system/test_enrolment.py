"""Enrolment of the agent's identity with the certificate authority at start-up."""
import json
import os
import re
import socket
import stat
import subprocess
import time

import pytest
from cryptography import x509
from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.asymmetric import padding
from cryptography.x509.oid import NameOID

import ca_server
from agent import free_port, wait_for

IDENTITY = ("server.key", "server.pem", "ca.crt")


@pytest.fixture
def ca(tmp_path):
    server = ca_server.CertificateAuthorityServer(state_dir=tmp_path / "ca").start()
    yield server
    server.stop()


@pytest.fixture
def enrolling(agent_root, ca):
    """An agent without identity whose certificate authority is the development CA."""
    agent_root.env["ORVD_CA_URL"] = ca.url
    return agent_root


def cert_path(agent, name):
    return os.path.join(agent.cert_dir, name)


def read(agent, name):
    with open(cert_path(agent, name)) as f:
        return f.read()


def present(agent):
    return sorted(os.listdir(agent.cert_dir))


def generation_error(agent):
    return ("Could not start Zelko Linux Agent. Certificate generation error.\n"
            "The following files must exist and be readable:\n"
            " * Server key: %s/server.key\n"
            " * Server certificate: %s/server.pem\n"
            " * CA certificate: %s/ca.crt\n" % (agent.cert_dir, agent.cert_dir, agent.cert_dir))


def failed_start(agent, timeout=120):
    result = agent.run("-d", timeout=timeout)
    assert result.returncode == 1, result.stdout + result.stderr
    assert generation_error(agent) in result.stdout, result.stdout
    return result


def assert_logged(agent, patterns):
    logs = agent.logs()
    for pattern in patterns:
        assert any(re.fullmatch(pattern, line, re.S) for line in logs), (pattern, logs)


def assert_identity(agent, authority):
    """The four files form one identity: a 0600 key, its request and certificate, the CA."""
    assert present(agent) == ["ca.crt", "server.csr", "server.key", "server.pem"]
    assert stat.S_IMODE(os.stat(cert_path(agent, "server.key")).st_mode) == 0o600
    key = serialization.load_pem_private_key(read(agent, "server.key").encode(), password=None)
    cert = x509.load_pem_x509_certificate(read(agent, "server.pem").encode())
    csr = x509.load_pem_x509_csr(read(agent, "server.csr").encode())
    assert read(agent, "ca.crt") == authority.pem
    authority.cert.public_key().verify(cert.signature, cert.tbs_certificate_bytes, padding.PKCS1v15(),
                                       cert.signature_hash_algorithm)
    assert cert.issuer == authority.cert.subject
    assert cert.public_key().public_numbers() == key.public_key().public_numbers()
    assert csr.public_key().public_numbers() == key.public_key().public_numbers()
    assert csr.is_signature_valid
    assert (key.key_size, csr.signature_hash_algorithm.name) == (2048, "sha256")
    assert read(agent, "server.csr").startswith("-----BEGIN CERTIFICATE REQUEST-----\n")
    assert [(a.oid, a.value) for a in csr.subject] == [
        (NameOID.COUNTRY_NAME, "US"),
        (NameOID.STATE_OR_PROVINCE_NAME, "Oregon"),
        (NameOID.LOCALITY_NAME, "Bend"),
        (NameOID.ORGANIZATION_NAME, "Zelko"),
        (NameOID.ORGANIZATIONAL_UNIT_NAME, "Device-Agent CA"),
        (NameOID.COMMON_NAME, socket.gethostname()),
    ]
    assert cert.subject == csr.subject
    return key


def start_serving(agent):
    # The daemon writes its PID file just before it installs its signal handlers; the
    # server's port line comes after them, so a SIGTERM from then on ends it in order.
    port_lines = re.compile(r"Setting server port|Port configuration not set|Invalid port configuration")
    before = len(port_lines.findall(agent.output()))
    agent.start()
    wait_for(lambda: len(port_lines.findall(agent.output())) > before, what="the daemon to start its server")


def start_and_stop(agent):
    start_serving(agent)
    assert agent.stop() == 0


@pytest.mark.parametrize("tls", [(None, None, "TLSv1.3"), ("1.2", "1.2", "TLSv1.2")], ids=["tls13", "tls12"])
def test_first_start_enrols_and_later_starts_keep_the_identity(tmp_path, agent_root, tls):
    tls_min, tls_max, negotiated = tls
    with ca_server.CertificateAuthorityServer(state_dir=tmp_path / "ca", tls_min=tls_min, tls_max=tls_max) as ca:
        agent_root.env["ORVD_CA_URL"] = ca.url
        start_serving(agent_root)
        assert "Certificate information not found, recreating certificate." in agent_root.output()
        assert agent_root.stop() == 0
        key = assert_identity(agent_root, ca.authority)

        retrieve, issue = ca.requests
        for request in (retrieve, issue):
            assert (request["method"], request["path"], request["tls"]) == ("PUT", "/certApi.php", negotiated)
            for header in (("Content-Type", "application/json"), ("Accept", "application/json"),
                           ("charsets", "utf-8")):
                assert header in request["headers"], request["headers"]
        assert retrieve["body"] == '{"caId":"orv","caVersion":1,"action":"retrieveCaCert"}'
        document = json.loads(issue["body"], object_pairs_hook=list)
        assert document == [("caId", "orv"), ("caVersion", 1), ("key", ca_server.DEFAULT_TOKEN),
                            ("action", "issueCert"), ("certificateRequest", read(agent_root, "server.csr"))]

        # A complete identity is used as it is: no request, the same key.
        start_and_stop(agent_root)
        assert len(ca.requests) == 2
        assert assert_identity(agent_root, ca.authority).private_numbers() == key.private_numbers()


def test_reset_certificate_removes_the_identity_and_the_next_start_enrols_again(enrolling, ca):
    start_and_stop(enrolling)
    old_key = read(enrolling, "server.key")

    result = enrolling.run("reset_certificate")
    assert result.returncode == 1
    assert result.stdout.splitlines()[-1] == "Resetting certificate. Please restart orvd."
    assert present(enrolling) == ["server.csr"]
    assert len(ca.requests) == 2

    start_serving(enrolling)
    assert "Certificate information not found, recreating certificate." in enrolling.output()
    assert enrolling.stop() == 0
    assert len(ca.requests) == 4
    assert_identity(enrolling, ca.authority)
    assert read(enrolling, "server.key") != old_key


def test_an_empty_identity_file_is_recreated(agent, authority, ca):
    agent.env["ORVD_CA_URL"] = ca.url
    open(cert_path(agent, "ca.crt"), "w").close()
    start_serving(agent)
    assert "Certificate information is incomplete, recreating certificate." in agent.output()
    assert agent.stop() == 0
    assert_identity(agent, ca.authority)


def test_slow_answers_are_reassembled(enrolling, ca):
    ca.set_mode("slow")
    start_and_stop(enrolling)
    assert_identity(enrolling, ca.authority)


RETRIEVE_FAILURES = {
    "failure": [r"CA response status: failure",
                re.escape('CA response: {"status": "failure", "message": '
                          '"The development CA refuses retrieveCaCert for this test."}')],
    "empty": [r"CA response certificate is empty\."],
    "nocert": [r"CA response certificate is empty\."],
    "notpem": [r"CA response certificate is invalid: Unable to read certificate, error: -\d+"],
    "garbage": [r"Exception caught parsing certificate response: .+, response: "
                + re.escape("<html><body>502 Bad Gateway</body></html>")],
    "truncated": [r'Exception caught parsing certificate response: .+, response: \{"status": "success", .*'],
}
ISSUE_FAILURES = {
    "failure": [r"CSR response error: The development CA refuses issueCert for this test\."],
    "empty": [r"CSR response error: no certificate returned\."],
    "nocert": [r"CSR response error: no certificate returned\."],
    "notpem": [r"CSR response error: Unable to read certificate, error: -\d+"],
    "mismatch": [r"CSR response error: Signed certificate does not match the private key\."],
    "garbage": [r"Exception caught parsing signed certificate response: .+, response: "
                + re.escape("<html><body>502 Bad Gateway</body></html>"),
                r"CSR response error: invalid signed certificate response\."],
    "truncated": [r'Exception caught parsing signed certificate response: .+, response: \{"status": "success", .*',
                  r"CSR response error: invalid signed certificate response\."],
}
TRANSFER_FAILURES = {
    "disconnect": r"CA request failed: 18 .+\. ",
    "oversized": re.escape("CA request failed: 23 CA response exceeds 1048576 bytes. "),
}


def assert_next_start_enrols(agent, ca):
    ca.set_mode("normal")
    before = len(ca.requests)
    start_and_stop(agent)
    assert len(ca.requests) == before + 2
    assert_identity(agent, ca.authority)


@pytest.mark.parametrize("mode", sorted(RETRIEVE_FAILURES) + sorted(TRANSFER_FAILURES))
def test_a_bad_ca_certificate_answer_fails_start_up_and_writes_nothing(enrolling, ca, mode):
    ca.set_mode(mode, action="retrieveCaCert")
    result = failed_start(enrolling)
    if mode in TRANSFER_FAILURES:
        assert "Error. Create CA request failed." in result.stdout
        assert_logged(enrolling, [TRANSFER_FAILURES[mode], r"Create CA request failed\."])
    else:
        assert_logged(enrolling, RETRIEVE_FAILURES[mode] + [r"CA response failed\."])
    assert present(enrolling) == []
    assert_next_start_enrols(enrolling, ca)


@pytest.mark.parametrize("mode", sorted(ISSUE_FAILURES) + sorted(TRANSFER_FAILURES))
def test_a_bad_signed_certificate_answer_fails_start_up_and_leaves_no_certificate(enrolling, ca, mode):
    ca.set_mode(mode, action="issueCert")
    failed_start(enrolling)
    if mode in TRANSFER_FAILURES:
        assert_logged(enrolling, [TRANSFER_FAILURES[mode], r"Error\. Create CSR request failed\."])
    else:
        assert_logged(enrolling, ISSUE_FAILURES[mode])
    # What was written stays, complete: the CA certificate, the key and its request.
    assert present(enrolling) == ["ca.crt", "server.csr", "server.key"]
    assert read(enrolling, "ca.crt") == ca.authority.pem
    assert stat.S_IMODE(os.stat(cert_path(enrolling, "server.key")).st_mode) == 0o600
    key = serialization.load_pem_private_key(read(enrolling, "server.key").encode(), password=None)
    csr = x509.load_pem_x509_csr(read(enrolling, "server.csr").encode())
    assert csr.public_key().public_numbers() == key.public_key().public_numbers()
    assert_next_start_enrols(enrolling, ca)


def test_a_wrong_agent_token_is_refused(tmp_path, agent_root):
    with ca_server.CertificateAuthorityServer(state_dir=tmp_path / "ca", token="x" * 46) as ca:
        agent_root.env["ORVD_CA_URL"] = ca.url
        failed_start(agent_root)
        assert_logged(agent_root, [r"CSR response error: Invalid agent key\."])
        assert "server.pem" not in present(agent_root)


def test_a_ca_certificate_answer_without_certificate_keeps_the_old_ca_file(enrolling, ca):
    with open(cert_path(enrolling, "ca.crt"), "w") as f:
        f.write("previous authority\n")
    ca.set_mode("empty", action="retrieveCaCert")
    failed_start(enrolling)
    assert_logged(enrolling, [r"CA response certificate is empty\."])
    assert read(enrolling, "ca.crt") == "previous authority\n"


def test_a_failed_enrolment_never_pairs_a_new_key_with_the_old_certificate(agent, authority, ca):
    """The CA file is lost; enrolment makes a new key and then fails to get it signed."""
    agent.env["ORVD_CA_URL"] = ca.url
    old_key = read(agent, "server.key")
    os.unlink(cert_path(agent, "ca.crt"))
    ca.set_mode("failure", action="issueCert")
    failed_start(agent)
    assert read(agent, "server.key") != old_key
    assert "server.pem" not in present(agent)
    assert_next_start_enrols(agent, ca)


def test_an_unreachable_ca_fails_start_up(agent_root):
    agent_root.env["ORVD_CA_URL"] = "https://127.0.0.1:%d/certApi.php" % free_port()
    result = failed_start(agent_root)
    assert "Certificate information not found, recreating certificate." in result.stdout
    assert "Error. Create CA request failed." in result.stdout
    assert "[ERROR] Create CA request failed." in result.stdout
    assert_logged(agent_root, [r"CA request failed: 7 .+\. ", r"Create CA request failed\."])
    assert present(agent_root) == []


def test_a_ca_that_never_answers_times_out(enrolling, ca):
    ca.set_mode("hang", action="retrieveCaCert")
    started = time.monotonic()
    failed_start(enrolling, timeout=180)
    elapsed = time.monotonic() - started
    assert 55 < elapsed < 120, elapsed
    assert_logged(enrolling, [r"CA request failed: 28 .+\. "])
    assert present(enrolling) == []


def test_an_unwritable_certificate_directory_fails_start_up(enrolling, ca):
    subprocess.run(["mount", "-t", "tmpfs", "-o", "ro,size=1m", "tmpfs", enrolling.cert_dir], check=True)
    try:
        failed_start(enrolling)
        assert_logged(enrolling, [r"Unable to write CA response certificate, error: 30", r"CA response failed\."])
        assert present(enrolling) == []
    finally:
        subprocess.run(["umount", enrolling.cert_dir], check=True)
    assert_next_start_enrols(enrolling, ca)


def test_a_key_that_cannot_be_replaced_fails_start_up(enrolling, ca):
    os.mkdir(cert_path(enrolling, "server.key"))
    failed_start(enrolling)
    assert_logged(enrolling, [r"crt request and pk creation failed: Unable to write private key, error: 21"])
    assert present(enrolling) == ["ca.crt", "server.key"]
    assert os.listdir(cert_path(enrolling, "server.key")) == []
    os.rmdir(cert_path(enrolling, "server.key"))
    assert_next_start_enrols(enrolling, ca)
