"""The shared manager per real directory, and failures as Python classes,
both ways across the binding."""

import errno
import importlib.util
import os
import re
import subprocess
import sys
import tempfile
import unittest
from unittest import mock

import quillmarsh_sync
from support import TOKEN, ServedEraTest
from quillmarsh_sync import EraError, IntegrityError, StateError, SyncError, SyncManager


class RegistryTest(ServedEraTest):
    # How many consumers keep a manager is the service suite's business;
    # here, that Python gets the one object back.
    def test_one_python_object_per_real_directory_until_its_last_consumer_leaves(self):
        first = self.manager(shared=True)
        link = os.path.join(self.tmp, "link-" + os.path.basename(self.data_dir))
        os.symlink(self.data_dir, link)
        self.assertIs(self.manager(link, shared=True), first)
        first.acquire()
        self.assertTrue(first.is_alive())
        first.release()
        self.assertFalse(first.is_alive())
        self.assertIsNot(self.manager(shared=True), first)


class FailureTest(ServedEraTest):
    def test_the_components_failures_arrive_as_pythons_own_classes(self):
        from quillmarsh.auth import AuthError
        missing = os.path.join(self.tmp, "no-such-dir")
        vault_down = ConnectionError("token vault unreachable")

        def unreachable_vault():
            raise vault_down

        started = self.manager()
        started.start()
        # The manager's checks come in its order: the token source before the
        # URL, the URL before the directory; None is an empty URL.
        cases = [
            (lambda: SyncManager(missing, self.api_url, lambda: TOKEN), FileNotFoundError,
             "^data_dir does not exist: " + re.escape(missing) + "$"),
            (lambda: SyncManager(missing, None, None), TypeError, "^get_token must be callable, got NoneType$"),
            (lambda: SyncManager.get_or_create(missing, None, lambda: TOKEN), ValueError,
             "^server_url must not be empty$"),
            (lambda: SyncManager.get_or_create(missing, "", lambda: TOKEN), ValueError,
             "^server_url must not be empty$"),
            # The host's transport check decides, and its failure comes through.
            (lambda: SyncManager(self.data_dir, "http://example.com", lambda: TOKEN), ValueError,
             "^Refusing to send a bearer token over 'http://example.com'$"),
            (started.start, StateError, "^SyncManager already running$"),
            (lambda: self.manager(get_token=lambda: "wrong").sync(), AuthError, "HTTP 401"),
            (lambda: self.manager().trigger_era_transition(7), EraError, "requested transition era_id=7$"),
            # A Python failure crosses the component unchanged.
            (lambda: self.manager(get_token=unreachable_vault).sync(), ConnectionError, "^token vault unreachable$"),
        ]
        for call, cls, message in cases:
            with self.subTest(cls.__name__, message=message):
                with self.assertRaisesRegex(cls, message) as raised:
                    call()
                if cls is FileNotFoundError:
                    self.assertEqual(raised.exception.errno, errno.ENOENT)
                if cls is ConnectionError:
                    self.assertIs(raised.exception, vault_down)
        self.assertIn("http://example.com", self.quillmarsh._transport_security.calls)
        # StateError is misuse, which no SyncError handler may catch.
        self.assertFalse(issubclass(StateError, SyncError))
        self.assertTrue(issubclass(IntegrityError, SyncError) and issubclass(EraError, SyncError))
        self.assertIs(quillmarsh_sync.AuthError, AuthError)

    def test_the_transport_check_is_the_hosts_and_without_a_host_the_components_own(self):
        with mock.patch.dict(sys.modules, {"quillmarsh._transport_security": None}):
            with self.assertRaises(ImportError):
                SyncManager(self.data_dir, self.api_url, lambda: TOKEN)
        # Imported at each use: the module back, the manager builds.
        self.assertEqual(SyncManager(self.data_dir, self.api_url, lambda: TOKEN).sync().era_id, 1)

        self.quillmarsh.reset()
        with mock.patch.dict(sys.modules, {"quillmarsh": None}):
            with self.assertRaisesRegex(ValueError, "^Refusing to send a bearer token over 'http://example.com': "
                                                    "use https, or http only to a loopback host$"):
                SyncManager(self.data_dir, "http://example.com", lambda: TOKEN)
            loopback = SyncManager(self.data_dir, self.api_url.replace("https:", "http:"), lambda: TOKEN)
            self.assertTrue(loopback._server_url.startswith("http://127.0.0.1:"))
            self.assertEqual(SyncManager(self.data_dir, self.api_url, lambda: TOKEN).sync().era_id, 1)
        self.assertEqual(self.quillmarsh._transport_security.calls, [])


# Every line of USAGE_MISTAKES after the import is a mistake a type checker must see.
TYPED_USAGE = """
from typing import List, Optional
import quillmarsh_sync as qs

def run(manager: qs.SyncManager) -> List[str]:
    manager.set_progress_observer(lambda p: print(p.files_done, p.bytes_selected), min_interval_s=1.0)
    manager.register_era_callback(lambda event_type, era_id: print(event_type.upper(), era_id + 1))
    result: qs.SyncResult = manager.sync()
    manifest: Optional[qs.Manifest] = manager.get_manifest()
    try:
        manager.repair(manager.verify().corrupted_files)
    except qs.StateError:
        pass
    return manager.request_for_sync() + [str(result.era_id), str(manifest)]

run(qs.SyncManager.get_or_create("/data", "https://example.com", lambda: "token"))
"""
USAGE_MISTAKES = """import quillmarsh_sync as qs
qs.SyncManager("/data", "https://example.com", lambda: 1)
qs.SyncManager("/data", "https://example.com", lambda: "token").sync().era_id.upper()
qs.SyncManager("/data", "https://example.com", lambda: "token").verify().missing_files + "x"
"""


@unittest.skipUnless(importlib.util.find_spec("mypy"), "mypy is not installed")
class TypingTest(unittest.TestCase):
    def test_a_type_checker_sees_the_api_and_its_misuse(self):
        package = os.path.dirname(quillmarsh_sync.__file__)
        self.assertTrue(os.path.exists(os.path.join(package, "py.typed")))
        with tempfile.TemporaryDirectory() as tmp:
            def mypy(text):
                with open(os.path.join(tmp, "usage.py"), "w") as f:
                    f.write(text)
                return subprocess.run(
                    [sys.executable, "-m", "mypy", "--strict", "--cache-dir", os.path.join(tmp, "cache"), "usage.py"],
                    cwd=tmp, capture_output=True, text=True, env={**os.environ, "MYPYPATH": os.path.dirname(package)})

            checked = mypy(TYPED_USAGE)
            self.assertEqual(checked.returncode, 0, checked.stdout)
            checked = mypy(USAGE_MISTAKES)
            errors = {line.split(":")[1] for line in checked.stdout.splitlines() if ": error:" in line}
            self.assertEqual(errors, {"2", "3", "4"}, checked.stdout)


if __name__ == "__main__":
    unittest.main()
