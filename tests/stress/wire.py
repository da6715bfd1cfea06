# The frames of docs/protocol.md over SOCK_SEQPACKET, for the stress tools.
#
# Everything here names paths inside one instance: the server's runtime directory RT and the
# tools' own directory of files (the server's working directory), both inside one temporary
# directory made by run.py.
import os
import select
import socket
import struct

MAX_FRAME = 131072
REQUEST, BIND = 1, 3
FOREVER = 0xFFFFFFFF
NO_PID = 4194304 + 17  # above the largest pid_max: a kill of it reaches no process


# The commands the tools send, by service: name -> (code, request values), as the tables of
# protocol/include/posix/*.h list them (tests/unit/wire_table_test.cpp checks each line).
PROCESS = {
    "kill": (1, "u64 target, u32 signal, record info"),
    "killGroup": (2, "u64 selector, u32 signal, record info"),
    "waitSignal": (3, ""),
    "getGroupId": (4, "u64 pid"),
    "getParentId": (5, ""),
    "spawn": (6, "string path, u32 flags, u64 argc, argc x string, u64 envc, envc x string string, "
              "u32 options"),
    "spawnShared": (7, "string path, u32 flags, u64 argc, argc x string, u64 envc, envc x string "
                    "string, u32 options, u64 shm, u64 size"),
    "wait": (9, "u32 kind, u64 value, u64 options"),
    "abortWaits": (10, ""),
    "createPipe": (11, ""),
}
FD = {
    "openItem": (4, "string path, u32 flags, u32 mode, [u32 options]"),
    "createPipe": (7, ""),
    "createSocket": (8, ""),
}
STREAM = {
    "read": (1, "u64 max, u32 timeout"),
    "write": (2, "u32 timeout, bytes data"),
}
FORMATS = {"u8": "B", "u32": "I", "i32": "i", "u64": "Q", "record": "32s"}


# The code of a command of `service` (one of the tables above).
def code(service, name):
    return service[name][0]


# A request of fixed-size values, packed as the command's line lists them.
def pack(service, name, *values):
    types = [item.split()[0] for item in service[name][1].split(", ") if item]
    return struct.pack("<" + "".join(FORMATS[t] for t in types), *values)


def frame(kind, code, ident, data=b""):
    return struct.pack("<IIQII", kind, code, ident, len(data), 0) + data


def string(text):
    raw = text.encode()
    return struct.pack("<I", len(raw)) + raw


# A spawn request (its line in PROCESS) and the offset where its path ends.
def spawn(path, args, env=(), flags=0):
    head = string(path)
    body = struct.pack("<IQ", flags, len(args)) + b"".join(map(string, args))
    body += struct.pack("<Q", len(env)) + b"".join(string(k) + string(v) for k, v in env)
    return head + body + struct.pack("<I", 0), len(head)


def kill(pid, signal):
    return pack(PROCESS, "kill", pid, signal, bytes(32))


def wait(kind, value, options=0):
    return pack(PROCESS, "wait", kind, value, options)


# The entries (type, channel, service) of the node record at `at`, and the offset after it.
def nodes(data, at):
    (count,) = struct.unpack_from("<I", data, at)
    entries = [struct.unpack_from("<3Q", data, at + 4 + 48 * k) for k in range(count)]
    return entries, at + 4 + 48 * count


class Link:
    def __init__(self, path, timeout=5.0):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.sock.settimeout(timeout)
        self.next = 1
        try:
            self.sock.connect(path)
        except OSError:
            self.sock.close()
            raise

    def close(self):
        self.sock.close()

    def send(self, raw):
        self.sock.send(raw)

    # The next reply as (code, id, data); ConnectionError once the server closed the link.
    def recv(self, timeout):
        self.sock.settimeout(timeout)
        raw = self.sock.recv(MAX_FRAME + 64)
        if len(raw) < 24:
            raise ConnectionError("link closed")
        _, code, ident, length, _ = struct.unpack_from("<IIQII", raw)
        return code, ident, raw[24:24 + length]

    def call(self, code, data=b"", timeout=5.0):
        ident, self.next = self.next, self.next + 1
        self.send(frame(REQUEST, code, ident, data))
        while True:
            got, answered, reply = self.recv(timeout)
            if answered == ident:
                return got, reply

    # Reads every reply waiting now; False once the server has closed the link.
    def drain(self):
        try:
            while select.select([self.sock], [], [], 0)[0]:
                if not self.sock.recv(MAX_FRAME + 64):
                    return False
        except OSError:
            return False
        return True


class Instance:
    def __init__(self, rt, files):
        self.rt, self.files = rt, files

    def channel(self, name):
        return os.path.join(self.rt, "chn", name if isinstance(name, str) else "%016x" % name)

    def file(self, name):
        return os.path.join(self.files, name)

    # A link to posix.service after one round trip, which makes the process known.
    def posix(self, timeout=5.0):
        link = Link(self.channel("posix.service"), timeout)
        link.call(code(PROCESS, "getParentId"), timeout=timeout)
        return link

    # A link to the channel of a node entry, bound to its service.
    def bound(self, entry):
        link = Link(self.channel(entry[1]))
        link.send(frame(BIND, 0, entry[2]))
        if link.recv(5.0)[0] != 1:
            link.close()
            raise ConnectionError("bind refused")
        return link
