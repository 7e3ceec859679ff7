#!/usr/bin/env python3
"""A full mirror of one era through the Python binding against the same by
`qmsync sync`, in the same run, against one `qmsync serve` on loopback.

Each round mirrors into a fresh data directory, once from a Python process
(import quillmarsh_sync, set_extra_ca_file, SyncManager(...).sync()) and once
by qmsync, in alternating order. Prints the medians of: the qmsync process,
the Python side's work after its imports (CA, manager, sync), and the whole
Python process, which adds the interpreter's start and the imports, a fixed
cost of a tenth of a second or so. The ratio that measures the binding is
the first Python figure against qmsync (aim: at most 1.05).

    /usr/bin/python3 bench/python_mirror_bench.py --build build [--rounds 5] [--files 256] [--kib 512]

--build names the CMake build tree that holds cli/qmsync and python/.
"""

import argparse
import json
import os
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import textwrap
import time

# A Python process that mirrors with the binding. The binding calls the
# host's transport check; this stands in for the host with the library's
# rule (https anywhere).
PYTHON_MIRROR = textwrap.dedent("""
    import sys, time, types
    host = types.ModuleType("quillmarsh")
    host.__path__ = []
    check = types.ModuleType("quillmarsh._transport_security")
    def validate_bearer_transport_url(url):
        if not url.startswith("https://"):
            raise ValueError("Refusing to send a bearer token over %r" % url)
    check.validate_bearer_transport_url = validate_bearer_transport_url
    sys.modules.update({"quillmarsh": host, "quillmarsh._transport_security": check})
    import quillmarsh_sync
    data_dir, api_url, ca_file, token = sys.argv[1:5]
    started = time.perf_counter()  # what qmsync does too: the CA, a manager, one pass
    quillmarsh_sync.set_extra_ca_file(ca_file)
    result = quillmarsh_sync.SyncManager(data_dir, api_url, lambda: token).sync()
    print(time.perf_counter() - started, result.bytes_downloaded)
""")


def vocabulary(universe):
    return json.dumps({"era_id": 1, "named_universe": universe, "rotations": [], "filtrations": [],
                       "reductions": {}, "features": ["close"],
                       "metadata": {"named_universe": universe, "t_signal_is": 1, "n_instruments": 1}})


def write_source(source, files, kib):
    rng = random.Random(7)
    for i in range(files):
        path = os.path.join(source, "features", f"u{i % 4}", f"part_{i:05d}.bin")
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            f.write(rng.randbytes(kib * 1024))
    for u in range(4):
        with open(os.path.join(source, "features", f"u{u}", "vocabulary.json"), "w") as f:
            f.write(vocabulary(f"u{u}"))


def build_python(build):
    """The interpreter the build made the extension for."""
    try:
        with open(os.path.join(build, "CMakeCache.txt")) as f:
            for line in f:
                if line.startswith("Python_EXECUTABLE:"):
                    return line.split("=", 1)[1].strip()
    except OSError:
        pass
    return sys.executable


def timed(argv, env):
    started = time.perf_counter()
    done = subprocess.run(argv, capture_output=True, text=True, env=env)
    elapsed = time.perf_counter() - started
    if done.returncode != 0:
        sys.exit(f"{argv[0]} failed ({done.returncode}): {done.stderr}")
    return elapsed, done.stdout


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", default="build")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--files", type=int, default=256)
    parser.add_argument("--kib", type=int, default=512)
    args = parser.parse_args()
    qmsync = os.path.abspath(os.path.join(args.build, "cli", "qmsync"))
    python = build_python(args.build)
    env = {**os.environ, "PYTHONPATH": os.path.abspath(os.path.join(args.build, "python"))}

    tmp = tempfile.mkdtemp(prefix="qmsync-pybench-")
    server = None
    try:
        source, root = os.path.join(tmp, "source"), os.path.join(tmp, "root")
        token_file = os.path.join(tmp, "token")
        with open(token_file, "w") as f:
            f.write("bench-token\n")
        write_source(source, args.files, args.kib)
        subprocess.run([qmsync, "publish", "--source", source, "--out", root, "--era", "1", "--version", "1"],
                       check=True, capture_output=True)
        server = subprocess.Popen([qmsync, "serve", "--root", root, "--token-file", token_file, "--json"],
                                  stdout=subprocess.PIPE, text=True)
        started = json.loads(server.stdout.readline())
        api_url, ca_file = started["api_url"], started["ca_file"]

        python_s, call_s, cli_s = [], [], []
        for r in range(args.rounds):
            py_dir, cli_dir = os.path.join(tmp, f"py{r}"), os.path.join(tmp, f"cli{r}")
            os.makedirs(py_dir)
            os.makedirs(cli_dir)
            runs = [
                ("python", [python, "-c", PYTHON_MIRROR, py_dir, api_url, ca_file, "bench-token"]),
                ("qmsync", [qmsync, "sync", "--json", "--data-dir", cli_dir, "--server", api_url,
                            "--ca-file", ca_file, "--token-file", token_file]),
            ]
            for name, argv in runs if r % 2 == 0 else reversed(runs):
                elapsed, out = timed(argv, env)
                if name == "python":
                    python_s.append(elapsed)
                    call, copied = out.split()
                    call_s.append(float(call))
                else:
                    cli_s.append(elapsed)
                    copied = json.loads(out)["bytes_downloaded"]
                if int(copied) < args.files * args.kib * 1024:
                    sys.exit(f"{name} copied only {copied} bytes")
            shutil.rmtree(py_dir)
            shutil.rmtree(cli_dir)

        mib = args.files * args.kib / 1024
        py, call, cli = statistics.median(python_s), statistics.median(call_s), statistics.median(cli_s)
        print(f"era: {args.files} files, {mib:.0f} MiB; {args.rounds} rounds, medians")
        print(f"qmsync sync process          {cli:7.3f} s")
        print(f"python, after its imports    {call:7.3f} s   ratio {call / cli:.3f}")
        print(f"python, whole process        {py:7.3f} s   ratio {py / cli:.3f}")
    finally:
        if server:
            server.terminate()
            server.wait()
        shutil.rmtree(tmp, ignore_errors=True)


if __name__ == "__main__":
    main()
