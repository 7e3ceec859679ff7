"""The shared manager per real directory, and failures as Python classes,
both ways across the binding."""

import errno
import importlib.util
import os
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
        with self.assertRaises(ValueError):
            SyncManager.get_or_create(self.data_dir, self.era.api_url.replace("127.0.0.1", "localhost"),
                                      lambda: TOKEN)
        first.acquire()
        self.assertTrue(first.is_alive())
        first.release()
        self.assertFalse(first.is_alive())
        self.assertIsNot(self.manager(shared=True), first)


class FailureTest(ServedEraTest):
    def test_state_error_is_not_a_sync_error(self):
        manager = self.manager()
        manager.start()
        with self.assertRaises(StateError):
            try:
                manager.start()
            except SyncError:
                self.fail("a SyncError handler caught StateError")
        self.assertTrue(issubclass(IntegrityError, SyncError))
        self.assertFalse(issubclass(StateError, SyncError))

    def test_the_components_failures_arrive_as_pythons_own_classes(self):
        missing = os.path.join(self.tmp, "no-such-dir")
        with self.assertRaises(FileNotFoundError) as raised:
            SyncManager(missing, self.era.api_url, lambda: TOKEN)
        self.assertEqual(raised.exception.errno, errno.ENOENT)
        self.assertEqual(str(raised.exception), "data_dir does not exist: " + missing)

        # The manager's checks in its order: the token source before the URL,
        # the URL before the directory; None is an empty URL.
        with self.assertRaisesRegex(TypeError, "^get_token must be callable, got NoneType$"):
            SyncManager(missing, None, None)
        for server_url in (None, ""):
            with self.assertRaisesRegex(ValueError, "^server_url must not be empty$"):
                SyncManager.get_or_create(missing, server_url, lambda: TOKEN)

        # The host's transport check decides, and its failure comes through.
        with self.assertRaisesRegex(ValueError, "^Refusing to send a bearer token"):
            SyncManager(self.data_dir, "http://example.com", lambda: TOKEN)
        self.assertIn("http://example.com", self.quillmarsh._transport_security.calls)

        # A refused token is the host's AuthError, also by the package's name.
        from quillmarsh.auth import AuthError
        with self.assertRaises(AuthError):
            self.manager(get_token=lambda: "wrong").sync()
        self.assertIs(quillmarsh_sync.AuthError, AuthError)

    def test_a_host_without_its_transport_check_cannot_build_a_manager(self):
        with mock.patch.dict(sys.modules, {"quillmarsh._transport_security": None}):
            with self.assertRaises(ImportError):
                SyncManager(self.data_dir, self.era.api_url, lambda: TOKEN)
        # Imported at each use: the module back, the manager builds.
        self.assertEqual(SyncManager(self.data_dir, self.era.api_url, lambda: TOKEN).sync().era_id, 1)

    def test_without_any_host_the_components_own_transport_policy_decides(self):
        with mock.patch.dict(sys.modules, {"quillmarsh": None}):
            with self.assertRaisesRegex(ValueError, "^Refusing to send a bearer token over 'http://example.com': "
                                                    "use https, or http only to a loopback host$"):
                SyncManager(self.data_dir, "http://example.com", lambda: TOKEN)
            loopback = SyncManager(self.data_dir, self.era.api_url.replace("https:", "http:"), lambda: TOKEN)
            self.assertTrue(loopback._server_url.startswith("http://127.0.0.1:"))
            self.assertEqual(SyncManager(self.data_dir, self.era.api_url, lambda: TOKEN).sync().era_id, 1)
        self.assertEqual(self.quillmarsh._transport_security.calls, [])

    def test_a_python_failure_crosses_the_component_unchanged(self):
        vault_down = ConnectionError("token vault unreachable")

        def get_token():
            raise vault_down

        with self.assertRaises(ConnectionError) as raised:
            self.manager(get_token=get_token).sync()
        self.assertIs(raised.exception, vault_down)

    def test_a_manifest_of_another_era_is_an_era_error(self):
        manager = self.manager()
        manager.sync()
        manifest = os.path.join(self.data_dir, "manifest.json")
        with open(manifest) as f:
            text = f.read()
        # The local manifest claims era 7: the server's era 1 is another one.
        with open(manifest, "w") as f:
            f.write(text.replace('"era_id": 1', '"era_id": 7', 1))
        manager = self.manager()
        with self.assertRaises(SyncError) as raised:
            manager.sync()
        self.assertIsInstance(raised.exception, EraError)


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
