"""The end of a process whose manager still runs, and the GIL around the
component's blocking calls on the way. Each case runs in a child process,
so that a deadlock or a crash fails the case rather than the suite."""

import os
import subprocess
import sys
import textwrap
import unittest

from support import TOKEN, ServedEraTest

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
            # Both threads are idle, waiting for their next poll.
            "after the first pass": acquired + textwrap.dedent("""
                while not os.path.exists(os.path.join(DATA_DIR, "manifest.json")):
                    time.sleep(0.01)
            """),
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
