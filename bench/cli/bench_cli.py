#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
# Prints: a step of a 5,000-step `get-run DI0` script against a read of a bare QModbusTcpClient
# loop, against the same simulator (medians of alternating rounds, and of each round's ratio);
# the same 1,000-step sequence as one `e1212ctl script` and as 1,000 processes (both times and
# their ratio); the wall time and peak memory of a one-shot `get` against an empty Qt Core
# program. Usage: bench_cli.py BUILD_DIR [ROUNDS]
import json, os, socket, subprocess, sys, tempfile, time

build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "build")
ctl = os.path.join(build, "bin", "e1212ctl")
bare = os.path.join(build, "bin", "bench_barereadloop")
rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 7
env = dict(os.environ, QT_QPA_PLATFORM="offscreen")

def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]

def run(args, **kw):
    result = subprocess.run(args, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, **kw)
    if result.returncode != 0:
        sys.exit("failed: %s: %s" % (" ".join(args), result.stderr.decode()))

def wall_s(args):
    start = time.perf_counter()
    run(args)
    return time.perf_counter() - start

def median(values):
    values = sorted(values)
    return values[len(values) // 2]

def median_ms(args, repeat=20):
    """Median wall time (ms) of `args`."""
    times = []
    for _ in range(repeat):
        start = time.perf_counter()
        run(args)
        times.append((time.perf_counter() - start) * 1000)
    times.sort()
    return times[len(times) // 2]

port = free_port()
simulator = subprocess.Popen([ctl, "simulate", "--listen", "127.0.0.1:%d" % port], env=env,
                             stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
simulator.stdout.readline()  # listening
try:
    with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "config", "e1212.json")) as f:
        device = json.load(f)
    device["connection"] = {"host": "127.0.0.1", "port": port}
    work = tempfile.mkdtemp(prefix="bench-cli-")
    config = os.path.join(work, "bench.json")
    with open(config, "w") as f:
        json.dump(device, f)
    reads = 5000
    with open(os.path.join(work, "getrun.txt"), "w") as f:
        f.write("get-run DI0\n" * reads)
    # Whole processes on both sides (start-up included), alternating, so that load from
    # elsewhere falls on both alike.
    script_us, bare_us, ratios = [], [], []
    for _ in range(rounds):
        a = wall_s([ctl, "--config", config, "script", os.path.join(work, "getrun.txt")]) / reads * 1e6
        b = wall_s([bare, "127.0.0.1", str(port), str(reads)]) / reads * 1e6
        script_us.append(a)
        bare_us.append(b)
        ratios.append(a / b)
    print("5,000-step get-run DI0 script: %6.1f us a step (median of %d rounds; %.1f-%.1f)"
          % (median(script_us), rounds, min(script_us), max(script_us)))
    print("bare QModbusTcpClient loop:    %6.1f us a read (%.1f-%.1f)" % (median(bare_us), min(bare_us), max(bare_us)))
    print("ratio:                         %6.2f x (median of the rounds' ratios; %.2f-%.2f)"
          % (median(ratios), min(ratios), max(ratios)))

    steps = ["set DO1 1", "get DI0", "set DO1 0", "get DO1"] * 250
    with open(os.path.join(work, "steps.txt"), "w") as f:
        f.write("\n".join(steps) + "\n")

    start = time.perf_counter()
    run([ctl, "--config", config, "script", os.path.join(work, "steps.txt")])
    script_s = time.perf_counter() - start
    start = time.perf_counter()
    for step in steps:
        run([ctl, "--config", config] + step.split())
    processes_s = time.perf_counter() - start
    print("1,000 steps as one script:     %8.2f s" % script_s)
    print("1,000 steps as 1,000 processes: %8.2f s" % processes_s)
    print("ratio:                          %8.1f x" % (processes_s / script_s))

    empty = os.path.join(build, "bin", "bench_emptycore")
    for name, args in (("empty Qt Core program", [empty]), ("e1212ctl get DI0", [ctl, "--config", config, "get", "DI0"])):
        # Peak memory of the program alone, as GNU time reports it: a child of Python would
        # also count the interpreter's pages it starts from.
        probe = subprocess.run(["/usr/bin/time", "-f", "%M"] + args, env=env, stdout=subprocess.DEVNULL,
                               stderr=subprocess.PIPE, text=True)
        print("%-22s wall %6.1f ms (median of 20), peak memory %6.1f MiB" % (name, median_ms(args), int(probe.stderr.split()[-1]) / 1024))
finally:
    simulator.terminate()
    simulator.wait()
