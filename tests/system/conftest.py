import os

import pytest

from agent import Agent, pki
from backup_rig import BackupRig
from tgt import Tgtd


@pytest.fixture(scope="session")
def authority():
    """The certificate authority of this test run."""
    return pki.Authority()


@pytest.fixture(scope="session")
def twin_authority():
    """Another authority whose name has the same CN, O and OU as the run's authority
    (but another key and country): the agent compares only those three."""
    name = dict(pki.DEFAULT_CA_NAME)
    name["C"] = "DE"
    return pki.Authority(name=name)


@pytest.fixture(scope="session")
def foreign_authority():
    """An authority the agent has no relation with."""
    return pki.Authority(name={"C": "US", "O": "Elsewhere Inc", "OU": "Other CA", "CN": "Elsewhere Root CA"})


class ClientFiles:
    """Client certificates of this run, made once per (authority, device id, subject)."""

    def __init__(self, directory):
        self.directory = directory
        self.made = {}

    def __call__(self, authority, device_id, extra=None, **validity):
        key = (id(authority), str(device_id), tuple(extra or ()), tuple(sorted(validity.items())))
        if key not in self.made:
            directory = os.path.join(self.directory, "c%d" % len(self.made))
            os.makedirs(directory)
            self.made[key] = pki.write_client_files(directory, authority, device_id, extra=extra, **validity)
        return self.made[key]


@pytest.fixture(scope="session")
def client_files(tmp_path_factory):
    """client_files(authority, device_id, extra=None, **validity) -> (cert_path, key_path)"""
    return ClientFiles(str(tmp_path_factory.mktemp("clients")))


@pytest.fixture
def agent_root(tmp_path):
    """An agent on a temporary root with no identity; stopped after the test, which
    fails if the sanitizers reported anything."""
    agent = Agent(tmp_path / "agent")
    yield agent
    agent.kill()
    report = agent.sanitizer_report()
    assert not report, "sanitizer report from orvd:\n" + report


@pytest.fixture
def agent(agent_root, authority):
    """An agent on a temporary root with a server identity from the test authority."""
    agent_root.install_identity(authority)
    return agent_root


@pytest.fixture
def running_agent(agent):
    """The agent serving HTTPS on a free port (agent.port), set with set_config."""
    agent.serve()
    return agent


@pytest.fixture
def appliance(running_agent, authority, client_files):
    """appliance(device_id, authority=None) -> a client of the running agent holding a
    certificate for that device id from the run's authority (or the one given)."""
    def make(device_id, issuer=None, **kwargs):
        return running_agent.client(client_files(issuer or authority, device_id, **kwargs))
    return make


@pytest.fixture
def paired_client(running_agent, appliance):
    """A client of device 42, paired with the running agent, whose configuration holds
    all three keys of the configuration resource."""
    client = appliance(42)
    assert client.pair(42).status == 201
    running_agent.set_config("log_level", 3)
    running_agent.set_config("log_days_to_keep", 30)
    return client

# Loop-device volumes and the driver simulator (see volumes.py).
from volumes import loop_volumes, sim_dir  # noqa: E402,F401


@pytest.fixture
def tgtd(tmp_path):
    """A private tgtd on a free loopback port; the test adds targets. Torn down after the test."""
    with Tgtd(tmp_path / "tgtd") as tgt:
        yield tgt


@pytest.fixture
def rig(agent, sim_dir, tgtd, client_files, authority, tmp_path):
    """A BackupRig: the agent serving on the driver simulator with a tgtd target, paired
    with an appliance client of device 42."""
    return BackupRig(agent, sim_dir, tgtd, client_files, authority, tmp_path)
