import pytest

from agent import Agent, pki


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

# Loop-device volumes and the driver simulator (see volumes.py).
from volumes import loop_volume, loop_volumes, sim_dir  # noqa: E402,F401
