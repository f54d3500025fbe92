"""The program behind lab.sessions: an echo server, and a client that keeps many sessions open.

It runs in nodes, which have no file of the lab: the interpreter is handed this text, so nothing of
the lab is imported.

    serve NAME ADDRESS PORT... says the name on each connection, then echoes
    drive ADDRESS PATIENCE     words on standard input, a JSON answer on standard output for each:
                               open PORT COUNT [SOURCE]   sessions that stay; answers when all have begun
                               visit PORT COUNT [SOURCE]  connections that end when the server has
                                                          said its name: the names
                               show                       every session so far
                               pauses                     each session's longest time between two
                                                          echoes since this was last asked, seconds

Each session has one block of numbers on its way all the time, waits for its echo, compares, rests,
and sends the next. A session that hears nothing for PATIENCE seconds ends, as does one that is
reset.
"""

import asyncio
import contextlib
import json
import socket
import struct
import sys
import time

BLOCK = 64  # numbers in a block
REST_S = 0.1


async def serve(name, address, ports):
    """Until it is killed."""

    async def echo(reader, writer):
        with contextlib.suppress(OSError):
            writer.write(f"{name}\n".encode())
            while data := await reader.read(65536):
                writer.write(data)
                await writer.drain()
            writer.close()

    servers = [await asyncio.start_server(echo, address, port, backlog=1024) for port in ports]
    print("ready", flush=True)
    await asyncio.gather(*(server.serve_forever() for server in servers))


class Client:
    """One session; its place in the list of sessions is part of its numbers."""

    def __init__(self, place, patience):
        self.place = place
        self.patience = patience
        self.found = {"server": None, "port": 0, "blocks": 0, "ended": None}
        self.begun = asyncio.Event()
        self.pause = 0.0
        self.heard = 0.0

    def hear(self):
        """An echo came: how long there was none."""
        now = time.monotonic()
        self.pause = max(self.pause, now - (self.heard or now))
        self.heard = now

    def take_pause(self):
        """The longest pause since the last call, one that lasts included."""
        if not self.found["ended"]:
            self.hear()
        pause, self.pause = self.pause, 0.0
        return pause

    async def begin(self, address, port, source):
        """Connects and hears the server's name: reader, writer."""
        local = (source, 0) if source else None
        async with asyncio.timeout(self.patience):
            reader, writer = await asyncio.open_connection(address, port, local_addr=local)
            plug = writer.get_extra_info("socket")
            plug.setsockopt(socket.IPPROTO_TCP, socket.TCP_USER_TIMEOUT, self.patience * 1000)
            self.found["port"] = plug.getsockname()[1]
            self.found["server"] = (await reader.readline()).decode().strip()
        return reader, writer

    async def stay(self, *where):
        """The whole life of a session."""
        try:
            reader, writer = await self.begin(*where)
            self.begun.set()
            while True:
                first = self.place << 40 | self.found["blocks"] * BLOCK
                block = struct.pack(f"!{BLOCK}Q", *range(first, first + BLOCK))
                writer.write(block)
                if await reader.readexactly(len(block)) != block:
                    raise ValueError("the echo differs")
                self.found["blocks"] += 1
                self.hear()
                await asyncio.sleep(REST_S)
        except (OSError, EOFError, ValueError, TimeoutError) as e:
            self.found["ended"] = f"{type(e).__name__}: {e}"
        finally:
            self.begun.set()

    async def visit(self, *where):
        """Connects, hears the name and ends."""
        _, writer = await self.begin(*where)
        writer.close()
        await writer.wait_closed()
        return self.found["server"]


async def drive(address, patience):
    """Does what standard input says."""
    reader = asyncio.StreamReader()
    await asyncio.get_running_loop().connect_read_pipe(lambda: asyncio.StreamReaderProtocol(reader), sys.stdin)
    sessions, tasks = [], set()
    while words := (await reader.readline()).decode().split():
        answer = [client.found for client in sessions]
        source = words[3] if len(words) > 3 else None
        if words[0] == "open":
            made = [Client(len(sessions) + i, patience) for i in range(int(words[2]))]
            sessions += made
            tasks |= {asyncio.create_task(client.stay(address, int(words[1]), source)) for client in made}
            for client in made:
                await client.begun.wait()
            answer = [client.found for client in made]
        elif words[0] == "pauses":
            answer = [client.take_pause() for client in sessions]
        elif words[0] == "visit":
            answer = [await Client(0, patience).visit(address, int(words[1]), source)
                      for _ in range(int(words[2]))]
        print(json.dumps(answer), flush=True)


if __name__ == "__main__":
    asyncio.run(serve(sys.argv[2], sys.argv[3], sys.argv[4:]) if sys.argv[1] == "serve"
                else drive(sys.argv[2], int(sys.argv[3])))
