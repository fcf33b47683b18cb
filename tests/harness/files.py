"""Publishes and locks files as the programs do, and makes XML texts."""

import contextlib
import fcntl
import os
from pathlib import Path
from xml.sax.saxutils import quoteattr


def publish(path, data):
    """Writes data under a hidden name beside path and renames the file."""
    path = Path(path)
    data = data.encode() if isinstance(data, str) else data
    hidden = path.with_name("." + path.name)
    hidden.write_bytes(data)
    hidden.rename(path)


def crc16(data):
    """CRC-16/KERMIT of data, one bit at a time."""
    crc = 0
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = (crc >> 1) ^ (0x8408 if crc & 1 else 0)
    return crc


@contextlib.contextmanager
def locked(directory):
    """Holds the whole-directory lock that the daemon and its player share."""
    descriptor = os.open(directory, os.O_RDONLY)
    try:
        fcntl.flock(descriptor, fcntl.LOCK_EX)
        yield
    finally:
        os.close(descriptor)


def is_locked(directory):
    """Whether another process holds that lock."""
    descriptor = os.open(directory, os.O_RDONLY)
    try:
        fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
        return False
    except BlockingIOError:
        return True
    finally:
        os.close(descriptor)


def lock_waiters(directory=None):
    """The processes that wait for the lock of that directory, or of any."""
    inode = f":{os.stat(directory).st_ino}" if directory else ""
    lines = [line.split() for line in Path("/proc/locks").read_text().splitlines()]
    waiters = [fields for fields in lines if fields[1] == "->" and fields[2] == "FLOCK"]
    return [int(fields[5]) for fields in waiters if fields[6].endswith(inode)]


def element(name, children=(), **attributes):
    """XML text of an element; underscores in attribute names become hyphens."""
    text = "<" + name
    for key, value in attributes.items():
        if value is not None:
            text += f" {key.replace('_', '-')}={quoteattr(str(value))}"
    return text + (">" + "".join(children) + f"</{name}>" if children else "/>")


def parser(identity, *fields, attr_mode=None):
    """A parser element of type xml. Fields are (tag, attr, attr_value, parent) or its beginning."""
    names = ("tag", "attr", "attr_value", "parent")
    children = []
    for field in fields:
        values = dict(zip(names, ("", "", "")), **dict(zip(names, field)))
        pairs = [f" {name}={quoteattr(value)}" for name, value in values.items()]
        children.append(f"<field{''.join(pairs)}/>")
    return element("parser", children, id=identity, type="xml", attr_mode=attr_mode)
