"""Measures the time from a whole file on a server to its first audio file.

    /usr/bin/python3 tests/latency.py [COUNT]

Hands COUNT messages (10) over to each server by a rename, one after the other and each at a random
time, and prints how long it took until the daemon had delivered the first audio file. The
translator is the fake one of the tests; the daemon is the one that the tests use.
"""

import random
import statistics
import sys
import tempfile
import time
from pathlib import Path

from harness.remote import RemoteDaemon
from harness.servers import SERVERS


def measure(root, server, count, **attributes):
    """The seconds of each message."""
    daemon = RemoteDaemon(root, server, **attributes).start()
    result = []
    try:
        daemon.wait_receiving()
        for number in range(count):
            time.sleep(random.uniform(0, 5))
            server.put(f"{number}.txt", "One two three four five six seven eight nine ten.")
            start = time.monotonic()
            daemon.wait_outputs(1)
            result.append(time.monotonic() - start)
            daemon.take()
        daemon.stop()
    finally:
        daemon.close()
    return result


def main():
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 10
    print(f"{'server':<12}{'poll rate':>10}{'least':>8}{'median':>8}{'most':>8}   seconds")
    for name, kind in SERVERS.items():
        for rate in (1,) if kind.kind == "cifs" else (1, 5):
            with tempfile.TemporaryDirectory() as directory:
                server = kind(Path(directory) / "server")
                server.start()
                try:
                    attributes = {} if kind.kind == "cifs" else {"ftp_poll_rate": rate}
                    times = measure(Path(directory) / "daemon", server, count, **attributes)
                finally:
                    server.close()
            values = (min(times), statistics.median(times), max(times))
            print(f"{name:<12}{rate:>10}" + "".join(f"{value:>8.2f}" for value in values))


main()
