#!/usr/bin/env python3
"""Crowd run of `quarvel serve` on loopback (not part of ctest).

1. SLOW clients (spread over 127.0.0.2-127.0.0.9, under the per-address cap)
   each send one header line every 3 s; meanwhile curl fetches the check list
   from 127.0.0.1 several times and the worst time is reported.
2. PARALLEL clients download a 100 MiB sparse file at once; the server's peak
   resident memory (VmHWM) is reported.
Every client is bounded in time and the server is stopped at the end.
Usage: scripts/serve-crowd.py build/tools/quarvel [SLOW=1000] [PARALLEL=64]
"""
import os, resource, socket, subprocess, sys, tempfile, threading, time

# A thousand sockets here and as many in the server, which inherits this.
_, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 65536), hard))

quarvel = sys.argv[1]
slow = int(sys.argv[2]) if len(sys.argv) > 2 else 1000
parallel = int(sys.argv[3]) if len(sys.argv) > 3 else 64
port = 18491
folder = tempfile.mkdtemp(prefix="quarvel-crowd-")
with open(os.path.join(folder, "macchecklist.dat"), "wb") as f:
    f.write(os.urandom(1500))
with open(os.path.join(folder, "package.dat"), "wb") as f:
    f.truncate(100 * 1024 * 1024)
server = subprocess.Popen([quarvel, "serve", folder, "--port", str(port), "--bind", "127.0.0.1"],
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
try:
    time.sleep(0.5)
    stop = time.time() + 20
    sockets = []
    for i in range(slow):
        s = socket.socket()
        s.bind((f"127.0.0.{2 + i % 8}", 0))
        s.connect(("127.0.0.1", port))
        s.sendall(b"GET /quarvel/download/list/check/mac/ HTTP/1.1\r\n")
        sockets.append(s)
    def trickle():
        n = 0
        while time.time() < stop:
            time.sleep(3)
            for s in sockets:
                try:
                    s.sendall(b"X-Slow-%d: y\r\n" % n)
                except OSError:
                    pass
            n += 1
    t = threading.Thread(target=trickle, daemon=True)
    t.start()
    worst = 0.0
    for _ in range(10):
        start = time.time()
        r = subprocess.run(["curl", "-s", "-o", "/dev/null", "-w", "%{http_code}", "--max-time", "10",
                            f"http://127.0.0.1:{port}/quarvel/download/list/check/mac/"],
                           capture_output=True, text=True)
        took = time.time() - start
        worst = max(worst, took)
        assert r.stdout == "200", r.stdout
        time.sleep(1)
    print(f"{slow} slow-header clients connected: curl got the list 10 times, worst {worst * 1000:.0f} ms")
    for s in sockets:
        s.close()
    time.sleep(1)
    procs = [subprocess.Popen(["curl", "-s", "-o", "/dev/null", "--max-time", "300", "--limit-rate", "20M",
                               f"http://127.0.0.1:{port}/file/keyfile60/package.dat"]) for _ in range(parallel)]
    codes = [p.wait() for p in procs]
    with open(f"/proc/{server.pid}/status") as f:
        hwm = [l for l in f if l.startswith("VmHWM")][0].split()[1]
    print(f"{parallel} concurrent 100 MiB downloads: {codes.count(0)} completed, server peak RSS {int(hwm) / 1024:.1f} MiB")
finally:
    server.terminate()
    server.wait()
    for name in os.listdir(folder):
        os.unlink(os.path.join(folder, name))
    os.rmdir(folder)
