"""Certificates for the development appliance, its certificate authority and tests.

The agent trusts one certificate authority: its ca.crt. The appliance proves who it
is with a client certificate from that authority whose subject carries
CN=DEVICEID:<n>; the agent's own server certificate comes from the same authority
through enrolment.
"""
import datetime
import ipaddress
import os

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import rsa
from cryptography.x509.oid import ExtendedKeyUsageOID, NameOID

DEFAULT_CA_NAME = {"C": "US", "O": "Zelko", "OU": "Device-Agent CA", "CN": "Zelko Device-Agent CA"}

_OIDS = {
    "C": NameOID.COUNTRY_NAME,
    "ST": NameOID.STATE_OR_PROVINCE_NAME,
    "L": NameOID.LOCALITY_NAME,
    "O": NameOID.ORGANIZATION_NAME,
    "OU": NameOID.ORGANIZATIONAL_UNIT_NAME,
    "CN": NameOID.COMMON_NAME,
}


def make_name(attrs):
    """attrs: dict or list of (key, value) pairs, keys C/ST/L/O/OU/CN, in order."""
    items = attrs.items() if isinstance(attrs, dict) else attrs
    return x509.Name([x509.NameAttribute(_OIDS[k], v) for k, v in items])


def make_key(bits=2048):
    return rsa.generate_private_key(public_exponent=65537, key_size=bits)


def key_pem(key):
    return key.private_bytes(serialization.Encoding.PEM, serialization.PrivateFormat.TraditionalOpenSSL,
                             serialization.NoEncryption()).decode()


def cert_pem(cert):
    return cert.public_bytes(serialization.Encoding.PEM).decode()


def _general_name(name):
    try:
        return x509.IPAddress(ipaddress.ip_address(name))
    except ValueError:
        return x509.DNSName(name)


def _now():
    return datetime.datetime.now(datetime.timezone.utc).replace(tzinfo=None)


class Authority:
    """A certificate authority that can issue server and client certificates."""

    def __init__(self, name=None, key=None, cert=None, days=3650):
        self.key = key or make_key()
        if cert is None:
            subject = make_name(name or DEFAULT_CA_NAME)
            now = _now()
            cert = (x509.CertificateBuilder()
                    .subject_name(subject).issuer_name(subject)
                    .public_key(self.key.public_key())
                    .serial_number(x509.random_serial_number())
                    .not_valid_before(now - datetime.timedelta(days=1))
                    .not_valid_after(now + datetime.timedelta(days=days))
                    .add_extension(x509.BasicConstraints(ca=True, path_length=None), critical=True)
                    .add_extension(x509.KeyUsage(digital_signature=True, content_commitment=False,
                                                 key_encipherment=False, data_encipherment=False,
                                                 key_agreement=False, key_cert_sign=True, crl_sign=True,
                                                 encipher_only=False, decipher_only=False), critical=True)
                    .add_extension(x509.SubjectKeyIdentifier.from_public_key(self.key.public_key()),
                                   critical=False)
                    .sign(self.key, hashes.SHA256()))
        self.cert = cert

    @classmethod
    def load(cls, key_path, cert_path):
        with open(key_path, "rb") as f:
            key = serialization.load_pem_private_key(f.read(), password=None)
        with open(cert_path, "rb") as f:
            cert = x509.load_pem_x509_certificate(f.read())
        return cls(key=key, cert=cert)

    def save(self, key_path, cert_path):
        with open(key_path, "w") as f:
            f.write(key_pem(self.key))
        os.chmod(key_path, 0o600)
        with open(cert_path, "w") as f:
            f.write(cert_pem(self.cert))

    @property
    def pem(self):
        return cert_pem(self.cert)

    def issue(self, subject, public_key, server, days=825, not_before=None, not_after=None, alt_names=None):
        """alt_names: host names and IP addresses for a subjectAltName extension."""
        now = _now()
        builder = (x509.CertificateBuilder()
                   .subject_name(subject if isinstance(subject, x509.Name) else make_name(subject))
                   .issuer_name(self.cert.subject)
                   .public_key(public_key)
                   .serial_number(x509.random_serial_number())
                   .not_valid_before(not_before or now - datetime.timedelta(days=1))
                   .not_valid_after(not_after or now + datetime.timedelta(days=days))
                   .add_extension(x509.BasicConstraints(ca=False, path_length=None), critical=True)
                   .add_extension(x509.ExtendedKeyUsage(
                       [ExtendedKeyUsageOID.SERVER_AUTH if server else ExtendedKeyUsageOID.CLIENT_AUTH]),
                       critical=False)
                   .add_extension(x509.AuthorityKeyIdentifier.from_issuer_public_key(self.key.public_key()),
                                  critical=False))
        if alt_names:
            builder = builder.add_extension(x509.SubjectAlternativeName([_general_name(n) for n in alt_names]),
                                            critical=False)
        return builder.sign(self.key, hashes.SHA256())

    def sign_request(self, csr_pem, days=825):
        """Signs a PKCS#10 request as a server certificate; returns the PEM text."""
        csr = x509.load_pem_x509_csr(csr_pem.encode() if isinstance(csr_pem, str) else csr_pem)
        if not csr.is_signature_valid:
            raise ValueError("certificate request signature is not valid")
        return cert_pem(self.issue(csr.subject, csr.public_key(), server=True, days=days))

    def server_identity(self, hostname="localhost"):
        """A key and server certificate for an agent: (key_pem, cert_pem)."""
        key = make_key()
        cert = self.issue([("C", "US"), ("O", "Zelko"), ("OU", "Device-Agent CA"), ("CN", hostname)],
                          key.public_key(), server=True)
        return key_pem(key), cert_pem(cert)

    def client_identity(self, device_id, extra=None, **validity):
        """A key and client certificate whose subject carries CN=DEVICEID:<n>."""
        key = make_key()
        attrs = list(extra or []) + [("CN", "DEVICEID:%s" % device_id)]
        cert = self.issue(attrs, key.public_key(), server=False, **validity)
        return key_pem(key), cert_pem(cert)


def write_client_files(directory, authority, device_id, **kwargs):
    """Writes <directory>/client-<id>.key and .pem; returns (cert_path, key_path)."""
    key, cert = authority.client_identity(device_id, **kwargs)
    key_path = os.path.join(directory, "client-%s.key" % device_id)
    cert_path = os.path.join(directory, "client-%s.pem" % device_id)
    with open(key_path, "w") as f:
        f.write(key)
    os.chmod(key_path, 0o600)
    with open(cert_path, "w") as f:
        f.write(cert)
    return cert_path, key_path
