#!/usr/bin/env python3
"""A bounded load run of `quarvel serve` on loopback, with wrk as the load.

Starts the server on a folder of data files, runs wrk (answers.lua checks
every answer against the folder) for a fixed time, while a few slow clients
connect and say nothing or send their request a byte at a time. The
server's memory and descriptors are sampled from /proc. At the end the
server is stopped by a signal while the slow clients still hold their
connections; it must end in time with status 0 and let go of its port.
Exit status 0 when every check passed. Only 127.0.0.1 is ever contacted.
"""
import argparse
import os
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))

# The update run's GETs weigh most: the five public paths, then the same
# files from the in-house endpoint, then the file server's and Windows
# package's paths. Requests that name nothing servable must get 404.
LISTS = [("check", "macchecklist.dat"), ("package", "macpcklist.dat"),
         ("filter", "macfilterlist.dat"), ("user", "userchecklist.dat"),
         ("font", "fontchecklist.dat")]


def request_mix():
    mix = []
    for kind, name in LISTS:
        mix += [f"/quarvel/download/list/{kind}/mac/"] * 6
        mix += [f"/cmmn/download.nis?type=keyfile&filename={name}"] * 2
    mix += ["/cmmn/download.nis?type=file&filename=ver.dat",
            "/cmmn/download.nis?type=file&filename=welcome.dat",
            "/file/keyfile60/package.dat", "/file/keyfile60/welcome.txt",
            "/", "/quarvel/download/list/check/mac",
            "/quarvel/download/list/check/mac/macchecklist.dat",
            "/cmmn/download.nis?type=keyfile&filename=..%2Fwelcome.dat",
            "/cmmn/download.nis?type=other&filename=welcome.dat",
            "/cmmn/download.nis?type=keyfile&filename=no-such-list.dat",
            "/file/keyfile60/src"]
    return mix


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def proc_sample(pid):
    """(rss KiB, open descriptors, sockets), or None once the process is gone."""
    try:
        rss = 0
        with open(f"/proc/{pid}/status") as f:
            for line in f:
                if line.startswith("VmRSS:"):
                    rss = int(line.split()[1])
        fds = os.listdir(f"/proc/{pid}/fd")
        sockets = 0
        for fd in fds:
            try:  # a descriptor may close while it is looked at
                sockets += os.readlink(f"/proc/{pid}/fd/{fd}").startswith("socket:")
            except FileNotFoundError:
                pass
        return rss, len(fds), sockets
    except (FileNotFoundError, ProcessLookupError):
        return None


class SlowClients:
    """Silent clients hold a connection without a word; trickling ones send
    their request a byte at a time and must still get the right answer."""

    def __init__(self, port, silent, trickle, trickle_ms, stop):
        self.held, self.dropped = 0, 0
        self.trickled_ok, self.trickled_dropped, self.trickled_wrong = 0, 0, 0
        self.lock = threading.Lock()
        self.threads = [threading.Thread(target=self.silent, args=(port, stop), daemon=True)
                        for _ in range(silent)]
        self.threads += [threading.Thread(target=self.trickle, args=(port, trickle_ms, stop),
                                          daemon=True) for _ in range(trickle)]

    def start(self):
        for t in self.threads:
            t.start()

    def silent(self, port, stop):
        while not stop.is_set():
            try:
                with socket.create_connection(("127.0.0.1", port), timeout=60) as s:
                    with self.lock:
                        self.held += 1
                    s.settimeout(0.5)
                    while not stop.is_set():
                        try:
                            if s.recv(1) == b"":
                                with self.lock:
                                    self.dropped += 1
                                break
                        except socket.timeout:
                            continue
            except OSError:
                time.sleep(0.1)  # the server is gone: the run is ending

    def trickle(self, port, trickle_ms, stop):
        request = b"GET /cmmn/download.nis?type=file&filename=welcome.txt HTTP/1.1\r\n" \
                  b"Host: 127.0.0.1\r\nConnection: close\r\n\r\n"
        while not stop.is_set():
            try:
                with socket.create_connection(("127.0.0.1", port), timeout=30) as s:
                    for byte in request:
                        if stop.is_set():
                            return
                        s.sendall(bytes([byte]))
                        time.sleep(trickle_ms / 1000)
                    answer = b""
                    while chunk := s.recv(65536):
                        answer += chunk
                # Closed before the header was whole (the server's header
                # deadline): dropped, which is allowed; any answer must be right.
                right = answer.startswith(b"HTTP/1.1 200") and answer.endswith(self.expected)
                with self.lock:
                    if not answer:
                        self.trickled_dropped += 1
                    elif right:
                        self.trickled_ok += 1
                    else:
                        self.trickled_wrong += 1
            except OSError:
                with self.lock:
                    self.trickled_dropped += 1
                time.sleep(0.1)


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--quarvel", required=True, help="the quarvel program to run")
    p.add_argument("--folder", required=True, help="folder of data files to serve")
    p.add_argument("--clients", type=int, default=200, help="concurrent connections")
    p.add_argument("--seconds", type=int, default=30, help="length of the load")
    p.add_argument("--silent", type=int, default=4)
    p.add_argument("--trickle", type=int, default=4)
    p.add_argument("--trickle-ms", type=int, default=200)
    p.add_argument("--request-timeout-ms", type=int, default=10000)
    p.add_argument("--sample-ms", type=int, default=1000)
    p.add_argument("--stop-bound-ms", type=int, default=5000)
    p.add_argument("--rss-check", choices=["true", "false"], default="true")
    p.add_argument("--rss-margin-percent", type=float, default=10)
    p.add_argument("--rss-margin-kib", type=int, default=2048)
    o = p.parse_args()

    broken = []
    port = free_port()
    # The server logs every request: to a file, never to a pipe nobody reads.
    log = tempfile.TemporaryFile()
    # Every client here comes from 127.0.0.1: the per-address limit is set
    # well above the run's connections, so that the load, not that limit,
    # is what the run measures.
    per_address = 2 * (o.clients + o.silent + o.trickle) + 16
    server = subprocess.Popen([o.quarvel, "serve", o.folder, "--port", str(port),
                               "--bind", "127.0.0.1", "--max-per-address", str(per_address)],
                              stdout=subprocess.DEVNULL, stderr=log)
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline:
        try:
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
            break
        except OSError:
            time.sleep(0.05)
    else:
        server.kill()
        log.seek(0)
        print("FAIL: the server did not start:", log.read().decode(errors="replace"))
        return 1
    idle = proc_sample(server.pid)

    stop = threading.Event()
    slow = SlowClients(port, o.silent, o.trickle, o.trickle_ms, stop)
    with open(os.path.join(o.folder, "welcome.txt"), "rb") as f:
        slow.expected = f.read()
    slow.start()

    samples = []
    sampling = threading.Event()

    # A long run leaves its first seconds out of the memory samples: the
    # server's pools fill while the load builds up.
    warm_up = 5 if o.seconds >= 15 else 0
    load_start = time.monotonic()

    def sample():
        while not sampling.wait(o.sample_ms / 1000):
            s = proc_sample(server.pid)
            if s and time.monotonic() - load_start >= warm_up:
                samples.append(s)
    sampler = threading.Thread(target=sample, daemon=True)
    sampler.start()

    env = dict(os.environ, QUARVEL_LOAD_TARGETS="\n".join(request_mix()),
               QUARVEL_LOAD_FOLDER=os.path.abspath(o.folder))
    threads = max(1, min(2, o.clients))
    wrk = subprocess.run(["wrk", "-t", str(threads), "-c", str(max(o.clients, threads)),
                          "-d", f"{o.seconds}s", "--timeout", f"{max(1, o.request_timeout_ms // 1000)}s",
                          "-s", os.path.join(HERE, "answers.lua"),
                          f"http://127.0.0.1:{port}"],
                         env=env, capture_output=True, text=True, timeout=o.seconds + 120)
    sampling.set()
    sampler.join()
    print(wrk.stdout.strip())
    fields = {}
    for line in wrk.stdout.splitlines():
        if line.startswith(("answers ", "errors ")):
            for item in line.split()[1:]:
                if "=" in item:
                    k, v = item.split("=", 1)
                    fields[k] = v
    if wrk.returncode != 0 or "ok" not in fields:
        broken.append("wrk did not run: " + wrk.stderr.strip())
    else:
        if int(fields["ok"]) == 0:
            broken.append("no request was answered")
        if int(fields["wrong"]) != 0:
            broken.append(f"{fields['wrong']} wrong answers, the first {fields['first_wrong']}")
        dropped = sum(int(fields[k]) for k in ("connect", "read", "write", "timeout"))
        if dropped:
            broken.append(f"{dropped} requests dropped or timed out")

    # Memory: the last third's peak within the margin of the first third's.
    rss = [s[0] for s in samples]
    print(f"server rss KiB: idle {idle[0]}, max {max(rss) if rss else 0}; "
          f"samples {len(rss)}")
    if o.rss_check == "true" and len(rss) >= 6:
        third = len(rss) // 3
        first, last = max(rss[:third]), max(rss[-third:])
        allowed = first + max(o.rss_margin_kib, first * o.rss_margin_percent / 100)
        if last > allowed:
            broken.append(f"server memory grows: {first} KiB then {last} KiB")

    # The descriptors come back once the load is gone, but for the slow ones.
    time.sleep(1)
    after = proc_sample(server.pid)
    if after and after[2] > o.silent + o.trickle + 2:
        broken.append(f"{after[2]} sockets still open after the load")
    with slow.lock:
        print(f"slow clients: silent {slow.held} held, {slow.dropped} dropped by the server; "
              f"trickling {slow.trickled_ok} right, {slow.trickled_dropped} dropped, "
              f"{slow.trickled_wrong} wrong")
        if slow.trickled_wrong:
            broken.append("trickling clients answered wrongly")

    # Stop while the slow clients still hold their connections.
    started = time.monotonic()
    server.send_signal(signal.SIGTERM)
    try:
        status = server.wait(timeout=o.stop_bound_ms / 1000)
        took = (time.monotonic() - started) * 1000
        print(f"stopped in {took:.0f} ms with status {status}")
        if status != 0:
            broken.append(f"the server ended with status {status}")
    except subprocess.TimeoutExpired:
        server.kill()
        server.wait()
        broken.append(f"the server did not end within {o.stop_bound_ms} ms")
    stop.set()
    try:  # as a new server would take it
        with socket.socket() as s:
            s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            s.bind(("127.0.0.1", port))
            s.listen()
    except OSError:
        broken.append("the port stayed taken")

    for b in broken:
        print("FAIL:", b)
    print("PASS" if not broken else "FAIL")
    return 1 if broken else 0


if __name__ == "__main__":
    sys.exit(main())
