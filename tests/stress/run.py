# Runs the stress tools against a private server for a number of minutes and reports whether the
# server survived and came back to its baseline: threads and heap (from the "stats:" line SIGUSR1
# makes it log), open descriptors, sanitizer reports, a clean shut-down.
#
#     python3 run.py --server build/debug/server/posix-server --minutes 5 [--seed N]
#
# The server runs on RT inside a fresh temporary directory, with its working directory (and every
# path the tools make it open) in that directory too, and with at most 1024 descriptors so that
# the exhausting client gets to the end of them. Exit status 0 when every check passed; the
# directory is kept (with the server's log) when one failed.
import argparse
import multiprocessing
import os
import random
import re
import resource
import shutil
import signal
import subprocess
import tempfile
import time

import chaos
import fuzz
import wire

SANITIZER = re.compile(
    r"ERROR: AddressSanitizer|ERROR: LeakSanitizer|WARNING: ThreadSanitizer|runtime error:")
STATS = re.compile(rb"stats: heap bytes (\d+) blocks (\d+) threads (\d+)[ \n]")
HEAP_SLACK = 200  # blocks the heap may keep: tables that grew once keep their capacity


def answers(inst, seconds):
    end = time.time() + seconds
    while time.time() < end:
        try:
            inst.posix(timeout=2.0).close()
            return True
        except (OSError, ConnectionError):
            time.sleep(0.2)
    return False


# (heap bytes, heap blocks, threads, descriptors) of the server, or None.
def stats(server, log):
    start = os.path.getsize(log)
    server.send_signal(signal.SIGUSR1)
    for _ in range(100):
        time.sleep(0.05)
        with open(log, "rb") as text:
            found = STATS.search(text.read()[start:])
        if found:
            return tuple(map(int, found.groups())) + (len(os.listdir("/proc/%d/fd" % server.pid)),)
    return None


# The tools' directory with prog.sh, and the server started on RT with at most 1024
# descriptors; (instance, log path, server process).
def start(server, top):
    inst = wire.Instance(os.path.join(top, "rt"), os.path.join(top, "files"))
    os.makedirs(os.path.join(inst.files, "sub"))
    with open(inst.file("prog.sh"), "w") as prog:
        prog.write('#!/bin/sh\nexit "${1:-0}"\n')
    os.chmod(inst.file("prog.sh"), 0o755)
    log = os.path.join(top, "server.log")
    limit = lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (1024, 1024))
    proc = subprocess.Popen([os.path.abspath(server)], cwd=inst.files, preexec_fn=limit,
                            env=dict(os.environ, POSIX_RUNTIME_DIR=inst.rt),
                            stdin=subprocess.DEVNULL, stdout=open(log, "ab"),
                            stderr=subprocess.STDOUT)
    return inst, log, proc


# Two fuzzers for the whole run; four chaos clients at a time, each SIGKILLed after a random
# 0.1 to 3 s; now and then a client that exhausts the server's descriptors.
class Load:
    def __init__(self, inst, rng, seconds):
        self.inst, self.rng, self.pool, self.hog = inst, rng, [], None
        self.clients = self.killed = self.hogs = 0
        self.fuzzers = [self.process(fuzz.main, seconds, rng.getrandbits(32)) for _ in range(2)]

    def process(self, target, *args):
        proc = multiprocessing.Process(target=target, args=(self.inst.rt, self.inst.files) + args)
        proc.start()
        return proc

    def step(self):
        while len(self.pool) < 4:
            life = time.time() + self.rng.uniform(0.1, 3)
            self.pool.append((self.process(chaos.main, 5, self.rng.getrandbits(32)), life))
            self.clients += 1
        for proc, life in [entry for entry in self.pool if entry[1] < time.time()]:
            proc.kill()
            proc.join()
            self.pool.remove((proc, life))
            self.killed += 1
        if (self.hog is None or not self.hog.is_alive()) and self.rng.random() < 0.003:
            self.hog, self.hogs = self.process(chaos.exhaust, 10), self.hogs + 1

    def stop(self):
        for proc in self.fuzzers + [p for p, _ in self.pool] + ([self.hog] if self.hog else []):
            proc.kill()
            proc.join()

    def __str__(self):
        return "%d clients (%d killed), %d exhausting" % (self.clients, self.killed, self.hogs)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--server", required=True)
    ap.add_argument("--minutes", type=float, default=2)
    ap.add_argument("--seed", type=int, default=int(time.time()))
    args = ap.parse_args()
    top = tempfile.mkdtemp(prefix="px-stress-")
    inst, log, server = start(args.server, top)
    print("stress: seed %d, %s minutes, in %s" % (args.seed, args.minutes, top), flush=True)
    if not answers(inst, 20):
        raise SystemExit("stress: the server did not start; see " + log)
    chaos.main(inst.rt, inst.files, 3, args.seed)  # warm up: the server's tables grow once
    fuzz.main(inst.rt, inst.files, 3, args.seed)
    time.sleep(4)  # the programs the warm-up started end
    base = stats(server, log)
    load, silent = Load(inst, random.Random(args.seed), args.minutes * 60), 0
    end, check = time.time() + args.minutes * 60, time.time() + 10
    while time.time() < end and server.poll() is None:
        load.step()
        if time.time() > check:
            silent, check = silent + (not answers(inst, 30)), time.time() + 10
            state = "silent %d times" % silent if silent else "answering"
            print("stress: %s, server %s" % (load, state), flush=True)
        time.sleep(0.05)
    load.stop()
    after, settle = None, time.time() + 60
    while server.poll() is None and time.time() < settle:  # until threads and descriptors are back
        after = stats(server, log)
        if after and after[2] <= base[2] and after[3] <= base[3]:
            break
        time.sleep(1)
    alive = server.poll() is None
    server.send_signal(signal.SIGTERM)
    try:
        code = server.wait(30)
    except subprocess.TimeoutExpired:
        server.kill()
        code = "none (killed after 30 s)"
    with open(log, errors="replace") as text:
        reports = SANITIZER.findall(text.read())
    chn = os.path.join(inst.rt, "chn")
    failures = [why for why, bad in [
        ("the server died", not alive), ("it stopped answering", silent),
        ("no stats", alive and not after),
        ("threads or descriptors did not come back",
         after and (after[2] > base[2] or after[3] > base[3])),
        ("the heap grew by more than %d blocks" % HEAP_SLACK,
         after and after[1] > base[1] + HEAP_SLACK),
        ("sanitizer reports", reports), ("shut-down did not exit 0", code != 0),
        ("sockets left in RT/chn", os.path.isdir(chn) and os.listdir(chn))] if bad]
    print("stress: %s; heap bytes, blocks, threads, descriptors %s before, %s after; "
          "shut-down exit %s; %d sanitizer reports" % (load, base, after, code, len(reports)))
    if failures:
        raise SystemExit("stress: FAILED: %s; log and files in %s" % ("; ".join(failures), top))
    shutil.rmtree(top)
    print("stress: PASSED")


if __name__ == "__main__":
    main()
