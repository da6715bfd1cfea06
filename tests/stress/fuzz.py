# Random and half-valid frames on every channel and service the server hands out: posix.service,
# posix.fd.service, and the services in the node records of pipes (of both services), opened files
# and sockets.
#
# Nothing random ever names a process or a path. A kill or group kill names NO_PID; a spawn starts
# the tools' own prog.sh with tokens from a fixed list and no POSIX_STD* names; an openItem names a
# path in the tools' directory. Random bytes go only after those fields, and a frame's code is
# never changed by a mutation.
#
#     python3 fuzz.py RT FILES SECONDS [SEED]
import os
import random
import struct
import sys
import time

import wire

OPEN_FLAGS = [os.O_RDONLY, os.O_WRONLY | os.O_CREAT, os.O_RDWR | os.O_CREAT | os.O_TRUNC,
              os.O_RDWR | os.O_APPEND | os.O_CREAT, os.O_RDONLY | os.O_DIRECTORY,
              os.O_WRONLY | os.O_CREAT | os.O_EXCL]
CODES = [0, 1, 2, 3, 4, 5, 6, 8, 9, 10, 11, 12] * 4 + [7]  # every service's codes and one past
KILLS = (wire.code(wire.PROCESS, "kill"), wire.code(wire.PROCESS, "killGroup"))
SPAWN, SPAWN_SHARED = wire.code(wire.PROCESS, "spawn"), wire.code(wire.PROCESS, "spawnShared")
OPEN, FD_PIPE = wire.code(wire.FD, "openItem"), wire.code(wire.FD, "createPipe")


# Request data for `code` on `target`, and how many of its bytes must stay as built.
def request(rng, inst, target, code):
    if target == "posix" and code in KILLS:
        return struct.pack("<QI", wire.NO_PID, rng.randrange(40)) + rng.randbytes(32), 8
    if target == "posix" and code in (SPAWN, SPAWN_SHARED):
        args = [rng.choice(["prog", "0", "3", "x"]) for _ in range(rng.randrange(4))]
        data, safe = wire.spawn(inst.file("prog.sh"), args, [("A", "1")] * rng.randrange(3))
        return data + rng.randbytes(16 if code == SPAWN_SHARED else 0), safe
    if target == "fd" and code == OPEN:
        head = wire.string(inst.file(rng.choice(["", "a", "b", "sub", "sub/c"])))
        return head + struct.pack("<II", rng.choice(OPEN_FLAGS), rng.randrange(0o1000)), len(head)
    return rng.randbytes(rng.choice([0, 4, 8, 12, 13, 20, 64])), 0


# Cut short, grown, a header field other than the code replaced, oversized, or bytes after
# the first `safe` of the data changed.
def mutate(rng, raw, safe):
    raw = bytearray(raw)
    how = rng.randrange(6)
    if how == 0:
        return raw[:rng.randrange(len(raw))]
    if how == 1:
        return raw + rng.randbytes(rng.randrange(1, 100))
    if how == 2:
        at = rng.choice([0, 8, 16, 20])
        value = rng.choice([0, 1, 2, 3, 7, 1 << 31, len(raw), 2**32 - 1])
        raw[at:at + 4] = struct.pack("<I", value)
        return raw
    if how == 3:
        return bytes(wire.MAX_FRAME + 1)
    for _ in range(rng.randrange(1, 5)):
        if len(raw) > 24 + safe:
            raw[rng.randrange(24 + safe, len(raw))] = rng.randrange(256)
    return raw


# Node entries of a pipe of each service, a socket and an opened file.
def described(inst, rng, posix, fd):
    entries = []
    socket = wire.code(wire.FD, "createSocket")
    for code, data in [(FD_PIPE, b""), (socket, b""), (OPEN, request(rng, inst, "fd", OPEN)[0])]:
        got, reply = fd.call(code, data)
        at, count = 0, 2 if code == FD_PIPE else 1
        while got == 1 and count:
            more, at = wire.nodes(reply, at + 4)
            entries, count = entries + more, count - 1
    got, reply = posix.call(wire.code(wire.PROCESS, "createPipe"))
    if got == 1:
        read, at = wire.nodes(reply, 0)
        entries += read + wire.nodes(reply, at)[0]
    return entries


def fuzz_round(inst, rng, frames):
    posix = inst.posix()
    fd = wire.Link(inst.channel("posix.fd.service"))
    links = [("posix", posix), ("posix", wire.Link(inst.channel("posix.service"))), ("fd", fd)]
    for entry in described(inst, rng, posix, fd):
        try:
            if rng.random() < 0.8:
                links.append(("service", inst.bound(entry)))
            else:  # unbound: its first frame is a bind to any service, or no bind at all
                links.append(("service", wire.Link(inst.channel(entry[1]))))
                links[-1][1].send(wire.frame(wire.BIND, 0, rng.randrange(8)))
        except (OSError, ConnectionError):
            pass
    for _ in range(frames):
        target, link = rng.choice(links)
        code = rng.choice(CODES) if rng.random() < 0.9 else rng.getrandbits(32)
        data, safe = request(rng, inst, target, code)
        raw = wire.frame(wire.REQUEST, code, rng.getrandbits(64), data)
        try:
            link.send(mutate(rng, raw, safe) if rng.random() < 0.5 else raw)
        except OSError:
            pass
        link.drain()
    for _, link in links:
        link.close()
    return frames


def main(rt, files, seconds, seed=None):
    rng, inst = random.Random(seed), wire.Instance(rt, files)
    end, sent = time.time() + seconds, 0
    while time.time() < end:
        try:
            sent += fuzz_round(inst, rng, 200)
        except (OSError, ConnectionError, struct.error):
            time.sleep(0.2)  # the server is short of descriptors, or dropped a link it should
    return sent


if __name__ == "__main__":
    print("fuzz: %d frames" % main(*sys.argv[1:3], float(sys.argv[3]), *map(int, sys.argv[4:5])))
