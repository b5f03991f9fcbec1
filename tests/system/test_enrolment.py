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


def failed_start(agent, timeout=120):
    result = agent.run("-d", timeout=timeout)
    assert result.returncode == 1, result.stdout + result.stderr
    assert ("Could not start Zelko Linux Agent. Certificate generation error.\n"
            "The following files must exist and be readable:\n"
            " * Server key: {0}/server.key\n * Server certificate: {0}/server.pem\n"
            " * CA certificate: {0}/ca.crt\n".format(agent.cert_dir)) in result.stdout, result.stdout
    return result


def assert_logged(agent, patterns):
    logs = agent.logs()
    for pattern in patterns:
        assert any(re.fullmatch(pattern, line, re.S) for line in logs), (pattern, logs)


def assert_key_and_request(agent):
    """A 0600 2048-bit key and its SHA-256 request; returns the key."""
    assert stat.S_IMODE(os.stat(cert_path(agent, "server.key")).st_mode) == 0o600
    key = serialization.load_pem_private_key(read(agent, "server.key").encode(), password=None)
    assert read(agent, "server.csr").startswith("-----BEGIN CERTIFICATE REQUEST-----\n")
    csr = x509.load_pem_x509_csr(read(agent, "server.csr").encode())
    assert csr.public_key().public_numbers() == key.public_key().public_numbers() and csr.is_signature_valid
    assert (key.key_size, csr.signature_hash_algorithm.name) == (2048, "sha256")
    return key, csr


def assert_identity(agent, authority):
    """The four files form one identity: key, its request and certificate, the CA."""
    assert present(agent) == ["ca.crt", "server.csr", "server.key", "server.pem"]
    key, csr = assert_key_and_request(agent)
    cert = x509.load_pem_x509_certificate(read(agent, "server.pem").encode())
    assert read(agent, "ca.crt") == authority.pem
    authority.cert.public_key().verify(cert.signature, cert.tbs_certificate_bytes, padding.PKCS1v15(),
                                       cert.signature_hash_algorithm)
    assert cert.issuer == authority.cert.subject
    assert cert.public_key().public_numbers() == key.public_key().public_numbers()
    assert [(a.oid, a.value) for a in csr.subject] == [
        (NameOID.COUNTRY_NAME, "US"), (NameOID.STATE_OR_PROVINCE_NAME, "Oregon"), (NameOID.LOCALITY_NAME, "Bend"),
        (NameOID.ORGANIZATION_NAME, "Zelko"), (NameOID.ORGANIZATIONAL_UNIT_NAME, "Device-Agent CA"),
        (NameOID.COMMON_NAME, socket.gethostname())]
    assert cert.subject == csr.subject
    return key


def start_serving(agent):
    # The port line comes after the signal handlers (the PID file before them): a SIGTERM then ends it in order.
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
            assert {("Content-Type", "application/json"), ("Accept", "application/json"),
                    ("charsets", "utf-8")} <= set(request["headers"]), request["headers"]
        assert retrieve["body"] == '{"caId":"orv","caVersion":1,"action":"retrieveCaCert"}'
        document = json.loads(issue["body"], object_pairs_hook=list)
        assert document == [("caId", "orv"), ("caVersion", 1), ("key", ca_server.DEFAULT_TOKEN),
                            ("action", "issueCert"), ("certificateRequest", read(agent_root, "server.csr"))]

        # A complete identity is used as it is: no request, the same key.
        start_and_stop(agent_root)
        assert len(ca.requests) == 2
        assert assert_identity(agent_root, ca.authority).private_numbers() == key.private_numbers()

        result = agent_root.run("reset_certificate")
        assert result.returncode == 1
        assert result.stdout.splitlines()[-1] == "Resetting certificate. Please restart orvd."
        assert present(agent_root) == ["server.csr"]
        start_serving(agent_root)
        assert agent_root.output().count("Certificate information not found, recreating certificate.") == 2
        assert agent_root.stop() == 0
        assert len(ca.requests) == 4
        assert assert_identity(agent_root, ca.authority).private_numbers() != key.private_numbers()


def test_an_incomplete_identity_is_recreated_and_a_new_key_never_paired_with_the_old_certificate(agent, ca):
    agent.env["ORVD_CA_URL"] = ca.url
    ca.set_mode("slow")  # answers in pieces, reassembled
    open(cert_path(agent, "ca.crt"), "w").close()
    start_serving(agent)
    assert "Certificate information is incomplete, recreating certificate." in agent.output()
    assert agent.stop() == 0
    assert_identity(agent, ca.authority)
    # The CA file is lost; enrolment makes a new key and then fails to get it signed.
    old_key = read(agent, "server.key")
    os.unlink(cert_path(agent, "ca.crt"))
    ca.set_mode("failure", action="issueCert")
    failed_start(agent)
    assert read(agent, "server.key") != old_key
    assert "server.pem" not in present(agent)
    assert_next_start_enrols(agent, ca)


# The lines logged per action and canned answer, one answer per branch of its handling
# (a missing and an empty certificate, a truncated and a non-JSON body take the same one).
GARBAGE = re.escape("<html><body>502 Bad Gateway</body></html>")
BAD_ANSWERS = {
    ("retrieveCaCert", "failure"): [r"CA response status: failure", re.escape(
        'CA response: {"status": "failure", "message": "The development CA refuses retrieveCaCert for this test."}')],
    ("retrieveCaCert", "empty"): [r"CA response certificate is empty\."],
    ("retrieveCaCert", "notpem"): [r"CA response certificate is invalid: Unable to read certificate, error: -\d+"],
    ("retrieveCaCert", "garbage"): [r"Exception caught parsing certificate response: .+, response: " + GARBAGE],
    ("retrieveCaCert", "disconnect"): [r"CA request failed: 18 .+\. ", r"Create CA request failed\."],
    ("retrieveCaCert", "oversized"): [re.escape("CA request failed: 23 CA response exceeds 1048576 bytes. "),
                                      r"Create CA request failed\."],
    ("issueCert", "failure"): [r"CSR response error: The development CA refuses issueCert for this test\."],
    ("issueCert", "empty"): [r"CSR response error: no certificate returned\."],
    ("issueCert", "notpem"): [r"CSR response error: Unable to read certificate, error: -\d+"],
    ("issueCert", "mismatch"): [r"CSR response error: Signed certificate does not match the private key\."],
    ("issueCert", "garbage"): [r"Exception caught parsing signed certificate response: .+, response: " + GARBAGE,
                               r"CSR response error: invalid signed certificate response\."],
    ("issueCert", "disconnect"): [r"CA request failed: 18 .+\. ", r"Error\. Create CSR request failed\."],
}


def assert_next_start_enrols(agent, ca):
    ca.set_mode("normal")
    before = len(ca.requests)
    start_and_stop(agent)
    assert len(ca.requests) == before + 2
    assert_identity(agent, ca.authority)


@pytest.mark.parametrize("action,mode", sorted(BAD_ANSWERS))
def test_a_bad_answer_fails_start_up_and_leaves_no_certificate(enrolling, ca, action, mode):
    ca.set_mode(mode, action=action)
    failed_start(enrolling)
    if action == "retrieveCaCert":
        answered = mode not in ("disconnect", "oversized")  # an answer came, not a failed transfer
        assert_logged(enrolling, BAD_ANSWERS[action, mode] + ([r"CA response failed\."] if answered else []))
        assert present(enrolling) == []
    else:
        assert_logged(enrolling, BAD_ANSWERS[action, mode])
        # What was written stays, complete: the CA certificate, the key and its request.
        assert present(enrolling) == ["ca.crt", "server.csr", "server.key"]
        assert read(enrolling, "ca.crt") == ca.authority.pem
        assert_key_and_request(enrolling)
    assert_next_start_enrols(enrolling, ca)


def test_a_ca_certificate_answer_without_certificate_keeps_the_old_ca_file(enrolling, ca):
    with open(cert_path(enrolling, "ca.crt"), "w") as f:
        f.write("previous authority\n")
    ca.set_mode("empty", action="retrieveCaCert")
    failed_start(enrolling)
    assert_logged(enrolling, [r"CA response certificate is empty\."])
    assert read(enrolling, "ca.crt") == "previous authority\n"


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
