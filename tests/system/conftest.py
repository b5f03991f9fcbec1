import os

import pytest

from agent import Agent, pki
from backup_rig import BackupRig
from tgt import Tgtd


@pytest.fixture(scope="session")
def authority():
    return pki.Authority()


@pytest.fixture(scope="session")
def twin_authority():
    """Another key whose name has the run's CN, O and OU (the three the agent compares)."""
    return pki.Authority(name=dict(pki.DEFAULT_CA_NAME, C="DE"))


@pytest.fixture(scope="session")
def foreign_authority():
    return pki.Authority(name={"C": "US", "O": "Elsewhere Inc", "OU": "Other CA", "CN": "Elsewhere Root CA"})


@pytest.fixture(scope="session")
def client_files(tmp_path_factory):
    """client_files(authority, device_id, extra=None, **validity) -> (cert_path, key_path), made once each."""
    directory, made = str(tmp_path_factory.mktemp("clients")), {}

    def make(authority, device_id, extra=None, **validity):
        key = (id(authority), str(device_id), tuple(extra or ()), tuple(sorted(validity.items())))
        if key not in made:
            path = os.path.join(directory, "c%d" % len(made))
            os.makedirs(path)
            made[key] = pki.write_client_files(path, authority, device_id, extra=extra, **validity)
        return made[key]
    return make


@pytest.fixture
def agent_root(tmp_path):
    """An agent with no identity; killed after the test, which fails on any sanitizer report."""
    agent = Agent(tmp_path / "agent")
    yield agent
    agent.kill()
    report = agent.sanitizer_report()
    assert not report, "sanitizer report from orvd:\n" + report


@pytest.fixture
def agent(agent_root, authority):
    agent_root.install_identity(authority)
    return agent_root


@pytest.fixture
def running_agent(agent):
    """The agent serving HTTPS on a free port (agent.port)."""
    agent.serve()
    return agent


@pytest.fixture
def appliance(running_agent, authority, client_files):
    """appliance(device_id, issuer=None) -> a client of the running agent for that device id."""
    def make(device_id, issuer=None, **kwargs):
        return running_agent.client(client_files(issuer or authority, device_id, **kwargs))
    return make


@pytest.fixture
def paired_client(running_agent, appliance):
    """Device 42, paired, with all three keys of the configuration resource set."""
    client = appliance(42)
    assert client.pair(42).status == 201
    running_agent.set_config("log_level", 3)
    running_agent.set_config("log_days_to_keep", 30)
    return client

# Loop-device volumes and the driver simulator (see volumes.py).
from volumes import loop_volumes, sim_dir  # noqa: E402,F401


@pytest.fixture
def tgtd(tmp_path):
    """A private tgtd on a free loopback port; the test adds targets."""
    with Tgtd(tmp_path / "tgtd") as tgt:
        yield tgt


@pytest.fixture
def rig(agent, sim_dir, tgtd, client_files, authority, tmp_path):
    """A BackupRig: the agent on the driver simulator with a tgtd target, paired with device 42."""
    return BackupRig(agent, sim_dir, tgtd, client_files, authority, tmp_path)
