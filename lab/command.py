"""The daemon's command protocol by hand: buffers that vellbctl would never send.

One buffer of 65,536 bytes each way over a stream socket, host byte order. Tests and the lab's own
readiness check use this; people use vellbctl.
"""

import socket
import struct

VERSION = 0x0805050B
SIZE = 65536
HEADER = struct.Struct("=I56sBBHHHHH")
ADD, RM, GET, SET = 1, 2, 3, 4
CONFIG, IFACE = 1, 2
FIELDS = ("version", "key", "keytype", "action", "addsize", "setsize", "getsize", "listsize", "rc")


def address(text=None, prefix=0):
    """The 24 bytes of an address; none at all for the unset one."""
    if text is None:
        return bytes(24)
    version = 6 if ":" in text else 4
    family = socket.AF_INET6 if version == 6 else socket.AF_INET
    return struct.pack("=BB6x16s", version, prefix, socket.inet_pton(family, text))


def config_key(cluster=None, port=0, rule=0, server=None):
    """A key of the configuration tree; without arguments the executor's."""
    return address(cluster) + struct.pack("=HH4x", port, rule) + address(server)


def iface_key(name="", addr=None, prefix=0):
    """A key of the interface tree; without arguments the collection's."""
    return struct.pack("=32s", name.encode()) + address(addr, prefix)


def request(action, key, keytype=CONFIG, add=b"", settings=b"", version=VERSION, **sizes):
    """A command buffer. `sizes` overrides addsize, setsize, getsize, listsize, rc."""
    size = {"addsize": len(add), "setsize": len(settings), "getsize": 0, "listsize": 0, "rc": 0} | sizes
    head = HEADER.pack(version, key, keytype, action, size["addsize"], size["setsize"],
                       size["getsize"], size["listsize"], size["rc"])
    return (head + add + settings).ljust(SIZE, b"\0")


def parse(buffer):
    """The header's fields by name, and the blocks: addable, setable, getable, children (keys)."""
    found = dict(zip(FIELDS, HEADER.unpack_from(buffer)))
    at = HEADER.size
    for block, size in (("add", "addsize"), ("set", "setsize"), ("get", "getsize"), ("list", "listsize")):
        found[block] = buffer[at:at + found[size]]
        at += found[size]
    found["children"] = [found["list"][i:i + 56] for i in range(0, len(found["list"]), 56)]
    return found


def receive(connection):
    """Reads one whole buffer; b"" or less than a buffer when the daemon closed early."""
    got = bytearray()
    while len(got) < SIZE:
        piece = connection.recv(SIZE - len(got))
        if not piece:
            break
        got += piece
    return bytes(got)


def connect(path, timeout=5):
    """A connection to the command socket (its path as the host sees it)."""
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    connection.settimeout(timeout)
    try:
        connection.connect(str(path))
    except OSError:
        connection.close()
        raise
    return connection


def exchange(path, buffer, timeout=5):
    """Sends one buffer and returns the answer's bytes."""
    with connect(path, timeout) as connection:
        connection.sendall(buffer)
        return receive(connection)


def call(path, *args, **kwargs):
    """request() and exchange() and parse() in one."""
    return parse(exchange(path, request(*args, **kwargs)))
