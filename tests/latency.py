"""Measures the time from a whole file on a server to its first audio file.

    /usr/bin/python3 tests/latency.py [COUNT]

Hands COUNT messages (10) over to each server by a rename, one after the other, each at a random
time. Prints the time until the daemon has delivered the first audio file. Daemon and fake
translator are those of the tests.
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
