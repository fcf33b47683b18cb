"""Statuses: their texts, a writer, and a reader that misses none."""

import os
import re
import threading
import xml.etree.ElementTree
from pathlib import Path


def timestamp(status):
    """The change counter of a status text."""
    return int(re.search(r' timestamp="(\d+)"', status)[1])


def status_text(timestamp=0, playing=0, state="run", bound=0, directories=()):
    """A status as the daemon writes it; directories are texts of directory_status()."""
    head = (
        f'<tts-status now-playing="{playing}" output-bound="{bound}" state="{state}"'
        f' timestamp="{timestamp}"'
    )
    return head + (">\n" + "".join(directories) + "</tts-status>\n" if directories else "/>\n")


def directory_status(identity="a", status=1, path="/in", total=0, updated=0, message=None):
    """A directory's record; message is (id, file name, plays)."""
    head = (
        f'    <directory id="{identity}" path="{path}" status="{status}"'
        f' total-file-count="{total}" updated-file-count="{updated}"'
    )
    if message is None:
        return head + "/>\n"
    number, name, plays = message
    record = f'<message filename="{name}" id="{number}" plays="{plays}"/>'
    return f"{head}>\n        {record}\n    </directory>\n"


def health_text(station=None, daemon=1, hung=0, saying="", children=()):
    """A health file as a station writes it. The station is this process by default. children are
    pairs of an element's name and its attributes."""
    station = station or os.getpid()
    stat = Path(f"/proc/{station}/stat")
    ticks = stat.read_text().rpartition(")")[2].split()[19] if stat.exists() else 0
    root = xml.etree.ElementTree.Element(
        "health",
        {
            "station": str(station),
            "station-start": str(ticks),
            "daemon": str(daemon),
            "hung": str(hung),
            "saying": saying,
        },
    )
    for name, attributes in children:
        xml.etree.ElementTree.SubElement(root, name, {k: str(v) for k, v in attributes.items()})
    return xml.etree.ElementTree.tostring(root, "unicode")


class StatusWriter(threading.Thread):
    """Replaces a daemon: rewrites a status file in place, with a counter that grows.

    record(timestamp) returns the text of each status.
    """

    def __init__(self, path, record):
        super().__init__(daemon=True)
        self.path = Path(path)
        self.record = record
        self.ended = threading.Event()
        self.path.write_text(record(0))

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.ended.set()
        self.join()

    def run(self):
        timestamp = 0
        while not self.ended.wait(0.02):
            timestamp += 1
            self.path.write_text(self.record(timestamp))


class StatusStream(threading.Thread):
    """Collects all statuses that are written to a FIFO, in their order."""

    def __init__(self, path):
        super().__init__(daemon=True)
        os.mkfifo(path)
        # Opened for reading and writing: the reader sees no end, and the daemon always has a
        # reader.
        self.descriptor = os.open(path, os.O_RDWR)
        self.data = b""
        self.start()

    def run(self):
        while not self.data.endswith(b"\0"):
            self.data += os.read(self.descriptor, 65536)

    def finish(self):
        if self.is_alive():
            os.write(self.descriptor, b"\0")
            self.join()
            os.close(self.descriptor)

    def documents(self):
        """The texts of the statuses so far."""
        text = self.data.decode()
        form = r"^<tts-status [^\n]*/>\n|^<tts-status .*?^</tts-status>\n"
        return re.findall(form, text, re.DOTALL | re.MULTILINE)
