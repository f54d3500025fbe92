"""python3 -m lab.sender INTERFACE PER_SECOND FILE: sends the frames of a file at a steady rate.

A process of its own, so that the rate does not depend on what a test does meanwhile. The file holds
frames, each behind its length in two bytes. Prints how many it sent and how long that took.
"""

import pathlib
import socket
import sys
import time


def read_frames(path):
    """The frames of a file."""
    data = pathlib.Path(path).read_bytes()
    frames = []
    at = 0
    while at < len(data):
        length = int.from_bytes(data[at:at + 2], "big")
        frames.append(data[at + 2:at + 2 + length])
        at += 2 + length
    return frames


def main():
    """The command line."""
    interface, per_second, path = sys.argv[1], int(sys.argv[2]), sys.argv[3]
    frames = read_frames(path)
    with socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0) as out:
        out.bind((interface, 0))
        begin = time.monotonic()
        step = max(1, per_second // 500)
        for start in range(0, len(frames), step):
            ahead = begin + start / per_second - time.monotonic()
            if ahead > 0:
                time.sleep(ahead)
            for frame in frames[start:start + step]:
                out.send(frame)
        print(len(frames), f"{time.monotonic() - begin:.3f}", flush=True)


if __name__ == "__main__":
    main()
