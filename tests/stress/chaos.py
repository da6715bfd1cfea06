# A client process that uses the server as programs do, meant to be SIGKILLed at any moment:
# it makes pipes (of both services) and leaves reads waiting in them, opens files in the tools'
# directory, keeps signal waits and waits, spawns programs, kills some and waits for others.
#
# It kills only programs it started itself, within a second of starting them (they sleep 3 s), so
# that a kill never reaches a pid the host has handed to someone else.
#
#     python3 chaos.py RT FILES SECONDS [SEED]     a client for SECONDS
#     python3 chaos.py RT FILES exhaust SECONDS    a client that exhausts descriptors
import os
import random
import resource
import struct
import sys
import time

import wire


# The codes of commands by name, from the tables of wire.py.
def PROCESS(name):
    return wire.code(wire.PROCESS, name)


def FD(name):
    return wire.code(wire.FD, name)


def STREAM(name):
    return wire.code(wire.STREAM, name)


def step(inst, rng, posix, fd, held):
    act = rng.randrange(7)
    if act == 0:  # a pipe with bytes in it and a read left waiting for ever
        got, reply = fd.call(FD("createPipe"))
        if got == 1:
            read, at = wire.nodes(reply, 4)
            write = wire.nodes(reply, at + 4)[0]
            held.append(inst.bound(write[0]))
            held[-1].call(STREAM("write"), struct.pack("<I", 0) + bytes(rng.randrange(6000)))
            held.append(inst.bound(read[0]))
            read = wire.pack(wire.STREAM, "read", 70000, wire.FOREVER)
            held[-1].send(wire.frame(wire.REQUEST, STREAM("read"), 1, read))
    elif act == 1:  # a file of the tools' directory, written and read back
        path = wire.string(inst.file("chaos%d" % rng.randrange(20)))
        got, reply = fd.call(FD("openItem"), path + struct.pack("<II", os.O_RDWR | os.O_CREAT, 0o600))
        if got == 1:
            held.append(inst.bound(wire.nodes(reply, 4)[0][0]))
            held[-1].call(STREAM("write"), struct.pack("<I", 0) + rng.randbytes(rng.randrange(100000)))
            held[-1].call(STREAM("read"), wire.pack(wire.STREAM, "read", 65536, 0))
    elif act == 2:  # a signal wait and a wait for any child, kept on a link of their own
        held.append(inst.posix())
        held[-1].send(wire.frame(wire.REQUEST, PROCESS("waitSignal"), 1))
        held[-1].send(wire.frame(wire.REQUEST, PROCESS("wait"), 2, wire.wait(2, 0)))
    elif act == 3:  # a program killed at once or waited for on a kept wait
        got, reply = posix.call(PROCESS("spawn"), wire.spawn("/bin/sleep", ["sleep", "3"])[0])
        pid = struct.unpack("<Q", reply)[0] if got == 1 else 0
        if pid and rng.random() < 0.5:
            posix.call(PROCESS("kill"), wire.kill(pid, 9))
        elif pid:
            held.append(inst.posix())
            held[-1].send(wire.frame(wire.REQUEST, PROCESS("wait"), 1, wire.wait(0, pid)))
    elif act == 4:  # a program that ends at once, collected
        if posix.call(PROCESS("spawn"), wire.spawn(inst.file("prog.sh"), ["prog", "7"])[0])[0] == 1:
            posix.call(PROCESS("wait"), wire.wait(2, 0), timeout=10)
    elif act == 5:  # pipes of the process service, some connected, some left waiting
        got, reply = posix.call(PROCESS("createPipe"))
        if got == 1 and rng.random() < 0.5:
            held.append(inst.bound(wire.nodes(reply, 0)[0][0]))
    elif held:  # abort the waits, let some links go
        posix.call(PROCESS("abortWaits"))
        for link in held[:rng.randrange(len(held) + 1)]:
            link.close()
            held.remove(link)


def main(rt, files, seconds, seed=None):
    rng, inst = random.Random(seed), wire.Instance(rt, files)
    end, held = time.time() + seconds, []
    while time.time() < end:
        try:
            posix = inst.posix()
            fd = wire.Link(inst.channel("posix.fd.service"))
            while time.time() < end:
                step(inst, rng, posix, fd, held)
                held = [link for link in held if link.drain()]
        except (OSError, ConnectionError, struct.error):
            time.sleep(0.1)  # the server is short of descriptors; start again


# A client that takes every descriptor the server will give it: pipes and opened files of the
# tools' directory until they are refused, then links to posix.service until the server stops
# answering on new ones. It holds them for `hold` seconds and lets them all go at once.
def exhaust(rt, files, hold):
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    inst, links, made = wire.Instance(rt, files), [], 0
    try:
        links.append(inst.posix(timeout=2.0))
        fd = wire.Link(inst.channel("posix.fd.service"), 2.0)
        links.append(fd)
        path = wire.string(inst.file("exhaust"))
        opening = path + struct.pack("<II", os.O_RDWR | os.O_CREAT, 0o600)
        pipe, item = (FD("createPipe"), b""), (FD("openItem"), opening)
        request = lambda: pipe if made % 2 else item  # pipes and files in turn
        while made < 5000 and fd.call(*request(), timeout=2.0)[0] == 1:
            made += 1
        while len(links) < hard - 100:
            links.append(inst.posix(timeout=2.0))
    except (OSError, ConnectionError, struct.error):
        pass
    print("exhaust: holding %d links, %d pipes and files" % (len(links), made), flush=True)
    time.sleep(hold)
    for link in links:
        link.close()


if __name__ == "__main__" and sys.argv[3] == "exhaust":
    exhaust(*sys.argv[1:3], float(sys.argv[4]))
elif __name__ == "__main__":
    main(*sys.argv[1:3], float(sys.argv[3]), *map(int, sys.argv[4:5]))
