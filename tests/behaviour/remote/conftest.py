"""Fixtures of the tests against real servers."""

import pytest
from harness.proxy import Proxy
from harness.remote import Helper, RemoteDaemon
from harness.servers import SERVERS


@pytest.fixture(params=SERVERS)
def make_server(request, maker):
    """Makes and starts servers (see Server) of one kind; the test runs once with each kind."""
    make = maker(SERVERS[request.param], "server")
    return lambda **options: make(**options).start()


@pytest.fixture
def server(make_server):
    return make_server()


@pytest.fixture
def make_proxy(maker):
    """Puts a proxy (see Proxy) in front of a server."""
    return maker(Proxy, "proxy")


@pytest.fixture
def make_helper(maker):
    """Makes helpers (see Helper)."""
    return maker(Helper, "h")


@pytest.fixture
def make_daemon(maker):
    """Makes daemons (see RemoteDaemon) with a server."""
    return maker(RemoteDaemon, "d")
