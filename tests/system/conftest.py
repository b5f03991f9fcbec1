import pytest

from agent import Agent, pki
from tgt import Tgtd


@pytest.fixture(scope="session")
def authority():
    """The certificate authority of this test run."""
    return pki.Authority()


@pytest.fixture
def agent_root(tmp_path):
    """An agent on a temporary root with no identity; stopped after the test."""
    agent = Agent(tmp_path / "agent")
    yield agent
    agent.kill()


@pytest.fixture
def agent(agent_root, authority):
    """An agent on a temporary root with a server identity from the test authority."""
    agent_root.install_identity(authority)
    return agent_root


@pytest.fixture
def tgtd(tmp_path):
    """A private tgtd on a free loopback port; the test adds targets. Torn down after the test."""
    with Tgtd(tmp_path / "tgtd") as tgt:
        yield tgt


@pytest.fixture
def tuned_tgtd(tmp_path):
    """A private tgtd with raised session parameters and malloc thresholds, for throughput."""
    with Tgtd(tmp_path / "tgtd", tuned=True) as tgt:
        yield tgt
