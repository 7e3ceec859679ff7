"""What the Python tests share: an era published with `qmsync publish`,
served by `qmsync serve` on loopback, and a data directory to mirror into."""

import json
import os
import random
import shutil
import subprocess
import tempfile
import unittest

QMSYNC = os.environ.get("QMSYNC_BINARY", "")
TOKEN = "token-1"


def era_files(era):
    """The source tree of `era`; era 2 changes one file, drops one and adds one."""
    rng = random.Random(era)
    files = {"features/equities/prices.bin": rng.randbytes(40000 + 10000 * (era - 1)),
             "docs/readme.txt": b"What this era holds.\n", "docs/empty.txt": b""}
    files["features/futures/rolls.bin" if era == 1 else "features/futures/curves.bin"] = rng.randbytes(3000)
    for universe in ("equities", "futures"):
        files[f"features/{universe}/vocabulary.json"] = json.dumps({
            "era_id": era, "named_universe": universe, "rotations": [], "filtrations": [], "reductions": {},
            "features": ["close", "volume"],
            "metadata": {"named_universe": universe, "t_signal_is": 12, "n_instruments": 30}}).encode()
    return files


def run_qmsync(*args):
    return subprocess.run([QMSYNC, *args], capture_output=True, text=True, timeout=120, check=True)


class ServedEraTest(unittest.TestCase):
    """Era 1 published and served by `qmsync serve` per test class; a fresh
    data directory per test."""

    @classmethod
    def setUpClass(cls):
        import quillmarsh
        import quillmarsh_sync
        cls.quillmarsh = quillmarsh
        cls.tmp = tempfile.mkdtemp(prefix="qmsync-py-")
        cls.root_dir, cls.token_path = os.path.join(cls.tmp, "root"), os.path.join(cls.tmp, "token")
        with open(cls.token_path, "w") as f:
            f.write(TOKEN + "\n")
        cls.publish(era=1)
        cls._serve_err = open(os.path.join(cls.tmp, "serve.err"), "w")
        cls._server = subprocess.Popen(
            [QMSYNC, "serve", "--root", cls.root_dir, "--token-file", cls.token_path, "--json"],
            stdout=subprocess.PIPE, stderr=cls._serve_err, text=True)
        started = json.loads(cls._server.stdout.readline())
        cls.api_url, cls.ca_file = started["api_url"], started["ca_file"]
        quillmarsh_sync.set_extra_ca_file(cls.ca_file)

    @classmethod
    def tearDownClass(cls):
        cls._server.terminate()
        cls._server.wait(timeout=30)
        cls._server.stdout.close()
        cls._serve_err.close()
        shutil.rmtree(cls.tmp, ignore_errors=True)

    @classmethod
    def publish(cls, era):
        """Publishes `era` beside the others; the server goes on serving the
        era current.json names until set_era_state."""
        cls.files = era_files(era)
        source_dir = os.path.join(cls.tmp, f"source{era}")
        for path, data in cls.files.items():
            os.makedirs(os.path.dirname(os.path.join(source_dir, path)), exist_ok=True)
            with open(os.path.join(source_dir, path), "wb") as f:
                f.write(data)
        run_qmsync("publish", "--source", source_dir, "--out", cls.root_dir, "--era", str(era), "--version", "1")

    @classmethod
    def set_era_state(cls, state):
        """What /era/current answers from now on."""
        with open(os.path.join(cls.root_dir, "current.json"), "w") as f:
            json.dump(state, f)

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
        manager = (SyncManager.get_or_create if shared else SyncManager)(data_dir or self.data_dir,
                                                                         self.api_url, get_token)
        self.managers.append(manager)
        return manager
