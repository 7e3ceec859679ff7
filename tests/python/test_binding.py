"""The binding's own contract, against qmsync serve: the records a sync, a
verification and a repair hand to Python; failures as Python classes, both
ways across the binding; era transitions driven from Python, with the era
callbacks and the host's sibling modules as they are called, missing or
failing; and the end of a process whose manager still runs. What the passes
do is the engine suites' business."""

import dataclasses
import json
import os
import re
import subprocess
import sys
import tempfile
import textwrap
import threading
import unittest
from unittest import mock

import quillmarsh_sync
from support import TOKEN, ServedEraTest, run_qmsync
from quillmarsh_sync import EraError, StateError, SyncManager, SyncResult, VerifyResult


class RecordsTest(ServedEraTest):
    def test_sync_verify_and_repair_hand_back_pythons_own_records(self):
        manager = self.manager()
        self.assertIsNone(manager.get_manifest())
        result = manager.sync()
        # The same pass by qmsync, into a directory of its own, prints the
        # same fields in the same order with the same values.
        printed = json.loads(run_qmsync("sync", "--json", "--data-dir", tempfile.mkdtemp(dir=self.tmp), "--server",
                                        self.api_url, "--ca-file", self.ca_file, "--token-file",
                                        self.token_path).stdout)
        self.assertEqual(list(printed), [field.name for field in dataclasses.fields(SyncResult)])
        self.assertEqual(dataclasses.asdict(result), printed)

        manifest = manager.get_manifest()
        with open(os.path.join(self.data_dir, "manifest.json")) as f:
            self.assertEqual(manifest.to_dict(), json.load(f))
        self.assertEqual((manifest.era_id, manifest.files["docs/empty.txt"]["size_bytes"]), (1, 0))

        os.remove(os.path.join(self.data_dir, "docs/readme.txt"))
        check = manager.verify()
        self.assertEqual(check, VerifyResult(valid=False, corrupted_files=[], missing_files=["docs/readme.txt"]))
        # The list goes back in as the paths to repair.
        manager.repair(check.missing_files)

    def test_the_progress_observer_is_throttled_but_told_of_the_last_file(self):
        manager = self.manager()
        seen = []
        # Nothing between the start and the last file passes an hour's throttle.
        manager.set_progress_observer(seen.append, min_interval_s=3600)
        manager.sync()
        self.assertGreater(seen[-1].files_selected, 2)
        self.assertEqual([p.files_done for p in seen], [0, seen[-1].files_selected])
        self.assertEqual(seen[-1].bytes_done, seen[-1].bytes_selected)

        # A failing observer changes nothing about the pass, and Python hears
        # of the failure as of any ignored one.
        os.remove(os.path.join(self.data_dir, "docs/readme.txt"))
        manager.set_progress_observer(lambda progress: 1 / 0)
        with mock.patch.object(sys, "unraisablehook") as hook, self.assertLogs("quillmarsh.sync", "WARNING"):
            self.assertEqual(manager.sync().bytes_downloaded, len(self.files["docs/readme.txt"]))
        self.assertTrue(hook.call_args_list)
        self.assertTrue(all(isinstance(c.args[0].exc_value, ZeroDivisionError) for c in hook.call_args_list))


class FailureTest(ServedEraTest):
    def test_the_components_failures_arrive_as_pythons_own_classes(self):
        from quillmarsh.auth import AuthError
        missing = os.path.join(self.tmp, "no-such-dir")
        vault_down = ConnectionError("token vault unreachable")
        started = self.manager()
        started.start()
        # The manager's checks come in its order: the token source before the
        # URL, the URL before the directory; None, like "", is an empty URL.
        cases = [
            (lambda: SyncManager(missing, self.api_url, lambda: TOKEN), FileNotFoundError,
             "^data_dir does not exist: " + re.escape(missing) + "$"),
            (lambda: SyncManager(missing, None, None), TypeError, "^get_token must be callable, got NoneType$"),
            (lambda: SyncManager.get_or_create(missing, None, lambda: TOKEN), ValueError,
             "^server_url must not be empty$"),
            # The host's transport check decides, and its failure comes through.
            (lambda: SyncManager(self.data_dir, "http://example.com", lambda: TOKEN), ValueError,
             "^Refusing to send a bearer token over 'http://example.com'$"),
            (started.start, StateError, "^SyncManager already running$"),
            (lambda: self.manager(get_token=lambda: "wrong").sync(), AuthError, "HTTP 401"),
            (lambda: self.manager().trigger_era_transition(7), EraError, "requested transition era_id=7$"),
            # A Python failure crosses the component unchanged.
            (lambda: self.manager(get_token=mock.Mock(side_effect=vault_down)).sync(), ConnectionError,
             "^token vault unreachable$"),
        ]
        for call, cls, message in cases:
            with self.subTest(cls.__name__, message=message):
                with self.assertRaisesRegex(cls, message) as raised:
                    call()
                if cls is ConnectionError:
                    self.assertIs(raised.exception, vault_down)
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
            # Which URLs that check lets through is the transport suite's business.
            self.assertEqual(SyncManager(self.data_dir, self.api_url, lambda: TOKEN).sync().era_id, 1)
        self.assertEqual(self.quillmarsh._transport_security.calls, [])


class EraTest(ServedEraTest):
    def test_refusals_reach_the_caller_as_their_own_classes_and_the_host_hears_of_each_move(self):
        from quillmarsh.deployment import LibraryUpdateRequired
        # Two directories on era 1: one moved by trigger_era_transition, one
        # by the monitor that acquire starts. What a move leaves on disk is the
        # transition suite's business.
        manager = self.manager()
        manager.sync()
        monitored = self.manager(tempfile.mkdtemp(dir=self.tmp), shared=True)
        # Which directory shares a manager, and for how long, is the service
        # suite's business; here, that Python gets the one object back.
        self.assertIs(self.manager(monitored._data_dir, shared=True), monitored)
        monitored.sync()
        self.publish(era=2)

        busy = type("SearchesBusy", (Exception,), {})("cannot stop now")
        killed = []
        self.set_era_state({"era": {"era_id": 2, "min_library_version": "999.0"}, "state": "active"})
        with self.assertRaisesRegex(LibraryUpdateRequired, r"^quillmarsh >= 999\.0 required for era 2\."):
            manager.trigger_era_transition(2)
        self.set_era_state({"era": {"era_id": 2}, "state": "active"})
        with self.assertRaises(type(busy)) as raised:
            manager.trigger_era_transition(2, mock.Mock(side_effect=busy))
        self.assertIs(raised.exception, busy)
        with mock.patch.dict(sys.modules, {"quillmarsh.search_tracking": None}), self.assertRaises(ImportError):
            manager.trigger_era_transition(2, lambda: killed.append(True))
        self.assertEqual(killed, [])

        # A connection failure of check_update is a warning, and without an
        # identity module the tracker is opened without one.
        self.quillmarsh.reset()
        self.quillmarsh.deployment.check_update_failure = ConnectionError("wheel cache unreachable")
        searches = []
        with mock.patch.dict(sys.modules, {"quillmarsh.identity": None}):
            with self.assertLogs("quillmarsh.sync", "WARNING") as logs:
                manager.trigger_era_transition(2, lambda: searches.append("kill"), lambda: searches.append("restart"))
        self.assertIn("Could not check local wheel cache for library update: wheel cache unreachable",
                      [r.getMessage() for r in logs.records])
        self.assertEqual(searches, ["kill", "restart"])
        self.assertEqual(self.quillmarsh.deployment.calls, [("check_update", "0.0.3")])
        self.assertEqual(self.quillmarsh.search_tracking.calls[0], ("open", manager._data_dir, {}))

        heard, restarted = [], threading.Event()

        class Listener:
            def on_era(self, event_type, era_id):
                heard.append((event_type, era_id))
                if event_type == "restart":
                    restarted.set()

        listener = Listener()
        for callback in (listener.on_era, mock.Mock(side_effect=KeyError("no such search")), listener.on_era):
            monitored.register_era_callback(callback)
        # An equal bound method, not the same object, takes away the first of the two.
        monitored.unregister_era_callback(listener.on_era)
        monitored.unregister_era_callback(print)  # never registered: nothing happens
        self.quillmarsh.reset()
        with self.assertLogs("quillmarsh.sync", "WARNING") as logs:
            monitored.acquire()
            self.assertTrue(restarted.wait(60), "no restart callback")
        self.assertEqual(heard, [("kill", 1), ("restart", 2)])
        failures = [r for r in logs.records if r.getMessage() == "Era callback failed (kill): 'no such search'"]
        self.assertEqual(len(failures), 1)
        self.assertEqual(failures[0].exc_text, "KeyError: 'no such search'")
        # The host's modules, each called as it expects.
        self.assertEqual(self.quillmarsh.auth.calls, [2])
        opened, handled, closed = self.quillmarsh.search_tracking.calls
        self.assertEqual(opened[:2], ("open", monitored._data_dir))
        self.assertEqual(opened[2]["identity"].data_dir, monitored._data_dir)
        self.assertEqual((handled, closed), (("handle_era_transition", 2, 1), ("close",)))



# What every child starts with: the served era, and a flock on the data
# directory's lock file taken as another process would take it.
PROLOGUE = textwrap.dedent("""
    import atexit, fcntl, logging, os, threading, time
    logging.basicConfig(level=logging.DEBUG)
    def load():
        # Imported where a case wants it: the import registers the package's exit hook.
        import quillmarsh_sync
        quillmarsh_sync.set_extra_ca_file(CA_FILE)
        return quillmarsh_sync
    LOCK_PATH = os.path.join(DATA_DIR, ".sync_flock")
    def hold_lock():
        held = open(LOCK_PATH, "a")
        fcntl.flock(held, fcntl.LOCK_EX)
        return held
    def wait_for_lock_waiter():
        # This process's wait for the flock, as /proc/locks shows it.
        inode = os.stat(LOCK_PATH).st_ino
        while True:
            with open("/proc/locks") as f:
                if any(l.split()[1] == "->" and l.split()[-3].endswith(":%d" % inode) for l in f):
                    return
            time.sleep(0.01)
""")


class ChildProcessTest(ServedEraTest):
    """The end of a process whose manager still runs, and the GIL around the
    component's blocking calls on the way. Each case runs in a child process,
    so that a deadlock or a crash fails the case rather than the suite."""

    def run_child(self, body, timeout_s=60):
        """Runs `body` in a fresh interpreter; a hang fails with what it printed."""
        os.makedirs(self.data_dir, exist_ok=True)
        constants = (f"API_URL, CA_FILE, TOKEN, DATA_DIR = {self.api_url!r}, {self.ca_file!r}, "
                     f"{TOKEN!r}, {self.data_dir!r}")
        try:
            child = subprocess.run([sys.executable, "-c", constants + PROLOGUE + textwrap.dedent(body)],
                                   capture_output=True, text=True, timeout=timeout_s)
        except subprocess.TimeoutExpired as e:
            self.fail(f"the child hung; it printed {e.stdout!r} {e.stderr!r}")
        for fatal in ("Fatal Python error", "terminate called", "FATAL", "Segmentation fault"):
            self.assertNotIn(fatal, child.stderr)
        self.assertEqual(child.returncode, 0, child.stderr)

    def test_a_process_ends_cleanly_while_its_manager_runs(self):
        acquired = textwrap.dedent("""
            slow_token, entered = threading.Event(), threading.Event()
            def get_token():
                if slow_token.is_set():
                    entered.set()
                    time.sleep(1)
                return TOKEN
            manager = load().SyncManager.get_or_create(DATA_DIR, API_URL, get_token, poll_interval_s=0.05)
            manager.acquire()
        """)
        cases = {
            # The poll thread and the era monitor are making their first calls.
            "at once": acquired,
            # A thread of the component is inside the token source.
            "in the token source": acquired + "slow_token.set(); entered.wait()",
            # A Python thread is inside the component, waiting for a flock
            # this thread holds: only if that wait let the GIL go can this
            # thread see it waiting. The flock is given up by an exit hook that
            # runs after the package's own, so the thread comes back out while
            # the interpreter is going away.
            "a python thread inside": """
                atexit.register(hold_lock().close)
                manager = load().SyncManager(DATA_DIR, API_URL, lambda: TOKEN)
                threading.Thread(target=manager.sync, daemon=True).start()
                wait_for_lock_waiter()
            """,
        }
        for case, body in cases.items():
            with self.subTest(case):
                self.data_dir = os.path.join(self.tmp, "exit-" + case.replace(" ", "-"))
                self.run_child(body)


if __name__ == "__main__":
    unittest.main()
