"""What the Python tests share: an era published with `qmsync publish`,
served by `qmsync serve` on loopback, and a data directory to mirror into."""

import json
import os
import random
import shutil
import subprocess
import tempfile
import time
import unittest

QMSYNC = os.environ.get("QMSYNC_BINARY", "")
TOKEN = "token-1"


def vocabulary_text(era, universe):
    return json.dumps({
        "era_id": era, "named_universe": universe, "rotations": [], "filtrations": [], "reductions": {},
        "features": ["close", "volume"],
        "metadata": {"named_universe": universe, "t_signal_is": 12, "n_instruments": 30},
    })


def era_one_files():
    """The source tree of era 1; the larger file is fetched by ranges when
    QUILLMARSH_SYNC_HTTP_CHUNK_BYTES is below its size."""
    rng = random.Random(1)
    files = {
        "features/equities/prices.bin": rng.randbytes(40000),
        "features/futures/rolls.bin": rng.randbytes(3000),
        "docs/readme.txt": b"What this era holds.\n",
        "docs/empty.txt": b"",
    }
    for universe in ("equities", "futures"):
        files[f"features/{universe}/vocabulary.json"] = vocabulary_text(1, universe).encode()
    return files


def wait_until(predicate, what, timeout_s=60.0):
    """Waits for a background thread's doing; the bound only turns a hang
    into a failure."""
    deadline = time.monotonic() + timeout_s
    while not predicate():
        if time.monotonic() > deadline:
            raise AssertionError(f"gave up waiting for {what}")
        time.sleep(0.02)


def run_qmsync(*args, check=True, env=None):
    result = subprocess.run([QMSYNC, *args], capture_output=True, text=True, timeout=120,
                            env=None if env is None else {**os.environ, **env})
    if check and result.returncode != 0:
        raise AssertionError(f"qmsync {' '.join(args)} exited {result.returncode}: {result.stderr}")
    return result


class ServedEra:
    """A server root under `tmp` with era 1 published from `files`, served
    until stop()."""

    def __init__(self, tmp, files):
        self.tmp = tmp
        self.files = dict(files)
        self.source_dir = os.path.join(tmp, "source")
        self.root_dir = os.path.join(tmp, "root")
        self.token_path = os.path.join(tmp, "token")
        with open(self.token_path, "w") as f:
            f.write(TOKEN + "\n")
        self.publish(era=1, version=1)
        self._err = open(os.path.join(tmp, "serve.err"), "w")
        self._server = subprocess.Popen(
            [QMSYNC, "serve", "--root", self.root_dir, "--token-file", self.token_path, "--json"],
            stdout=subprocess.PIPE, stderr=self._err, text=True)
        line = self._server.stdout.readline()
        if not line:
            self.stop()
            raise AssertionError("qmsync serve did not start: " + open(self._err.name).read())
        started = json.loads(line)
        self.api_url = started["api_url"]
        self.ca_file = started["ca_file"]

    def write_source(self):
        shutil.rmtree(self.source_dir, ignore_errors=True)
        for path, data in self.files.items():
            full = os.path.join(self.source_dir, path)
            os.makedirs(os.path.dirname(full), exist_ok=True)
            with open(full, "wb") as f:
                f.write(data)

    def publish(self, era, version):
        self.write_source()
        run_qmsync("publish", "--source", self.source_dir, "--out", self.root_dir, "--era", str(era),
                   "--version", str(version))

    def publish_era_two(self):
        """Era 2, not yet served: one file changed, one gone, one new."""
        rng = random.Random(2)
        self.files["features/equities/prices.bin"] = rng.randbytes(50000)
        del self.files["features/futures/rolls.bin"]
        self.files["features/futures/curves.bin"] = rng.randbytes(2000)
        for universe in ("equities", "futures"):
            self.files[f"features/{universe}/vocabulary.json"] = vocabulary_text(2, universe).encode()
        self.publish(era=2, version=1)

    def set_era_state(self, state):
        """What /era/current answers from now on."""
        with open(os.path.join(self.root_dir, "current.json"), "w") as f:
            json.dump(state, f)

    def stop(self):
        self._server.terminate()
        self._server.wait(timeout=30)
        self._server.stdout.close()
        self._err.close()


class ServedEraTest(unittest.TestCase):
    """One served era per test class; a fresh data directory per test."""

    @classmethod
    def setUpClass(cls):
        import quillmarsh
        import quillmarsh_sync
        cls.tmp = tempfile.mkdtemp(prefix="qmsync-py-")
        cls.era = ServedEra(cls.tmp, era_one_files())
        quillmarsh_sync.set_extra_ca_file(cls.era.ca_file)
        cls.quillmarsh = quillmarsh

    @classmethod
    def tearDownClass(cls):
        cls.era.stop()
        shutil.rmtree(cls.tmp, ignore_errors=True)

    def setUp(self):
        self.quillmarsh.reset()
        self.data_dir = tempfile.mkdtemp(prefix="data-", dir=self.tmp)
        self.managers = []

    def tearDown(self):
        for manager in self.managers:
            while manager.consumer_count > 0:
                manager.release()
            if manager.is_alive():
                manager.stop()

    def manager(self, data_dir=None, shared=False, get_token=lambda: TOKEN):
        """A manager of the served era; released and stopped after the test."""
        from quillmarsh_sync import SyncManager
        make = SyncManager.get_or_create if shared else SyncManager
        manager = make(data_dir or self.data_dir, self.era.api_url, get_token)
        self.managers.append(manager)
        return manager

    def assertMirrors(self, data_dir, files):
        for path, data in files.items():
            with open(os.path.join(data_dir, path), "rb") as f:
                self.assertTrue(f.read() == data, f"{path} differs from the source")
