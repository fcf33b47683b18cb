"""Fixtures of the tests against real servers."""

import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "system"))

from remote import RemoteDaemon  # noqa: E402
from servers import SERVERS, Helper  # noqa: E402


@pytest.fixture(params=SERVERS)
def make_server(request, tmp_path):
    """Makes and starts servers (see Server) of one kind; the test runs once with each kind."""
    servers = []

    def make(**options):
        root = tmp_path / f"server{len(servers)}"
        servers.append(SERVERS[request.param](root, **options))
        servers[-1].start()
        return servers[-1]

    yield make
    for server in servers:
        server.stop()


@pytest.fixture
def server(make_server):
    return make_server()


@pytest.fixture
def make_helper(tmp_path):
    """Makes helpers (see Helper) and ends them after the test."""
    helpers = []

    def make(server, **options):
        helpers.append(Helper(tmp_path / f"h{len(helpers)}", server, **options))
        return helpers[-1]

    yield make
    for helper in helpers:
        helper.close()


@pytest.fixture
def make_daemon(tmp_path):
    """Makes daemons (see RemoteDaemon) and ends them, with their helpers, after the test."""
    daemons = []

    def make(server, **options):
        daemons.append(RemoteDaemon(tmp_path / f"d{len(daemons)}", server, **options))
        return daemons[-1]

    yield make
    for daemon in daemons:
        daemon.close()
