"""The GIL around the component's blocking calls, and the end of a process
whose manager still runs. Each case runs in a child process, so that a
deadlock or a crash fails the case rather than the suite."""

import os
import subprocess
import sys
import textwrap
import unittest

from support import TOKEN, ServedEraTest

# Finds this process's wait for the flock on an inode in /proc/locks.
WAITING_FOR_LOCK = textwrap.dedent("""
    import os, time
    def wait_for_lock_waiter(path):
        inode = os.stat(path).st_ino
        while True:
            with open("/proc/locks") as f:
                if any(l.split()[1] == "->" and l.split()[-3].endswith(":%d" % inode) for l in f):
                    return
            time.sleep(0.01)
""")


class ChildProcessTest(ServedEraTest):
    def run_child(self, body, timeout_s=60):
        """Runs `body` in a fresh interpreter with API_URL, CA_FILE, TOKEN
        and DATA_DIR defined; a hang fails with what it printed."""
        prologue = (f"API_URL, CA_FILE, TOKEN, DATA_DIR = {self.era.api_url!r}, {self.era.ca_file!r}, "
                    f"{TOKEN!r}, {self.data_dir!r}\n")
        try:
            child = subprocess.run([sys.executable, "-c", prologue + WAITING_FOR_LOCK + textwrap.dedent(body)],
                                   capture_output=True, text=True, timeout=timeout_s)
        except subprocess.TimeoutExpired as e:
            self.fail(f"the child hung; it printed {e.stdout!r} {e.stderr!r}")
        for fatal in ("Fatal Python error", "terminate called", "FATAL", "Segmentation fault"):
            self.assertNotIn(fatal, child.stderr)
        self.assertEqual(child.returncode, 0, child.stderr)
        return child


class GilTest(ChildProcessTest):
    def test_python_runs_on_while_a_sync_waits_inside_the_component(self):
        # The sync waits for a flock this thread holds; only if it let the
        # GIL go can this thread see it waiting and let it through.
        child = self.run_child("""
            import fcntl, threading
            import quillmarsh_sync
            quillmarsh_sync.set_extra_ca_file(CA_FILE)
            lock_path = os.path.join(DATA_DIR, ".sync_flock")
            held = open(lock_path, "a")
            fcntl.flock(held, fcntl.LOCK_EX)
            manager = quillmarsh_sync.SyncManager(DATA_DIR, API_URL, lambda: TOKEN)
            outcome = []
            worker = threading.Thread(target=lambda: outcome.append(manager.sync()))
            worker.start()
            wait_for_lock_waiter(lock_path)
            held.close()
            worker.join()
            print("era", outcome[0].era_id)
        """)
        self.assertEqual(child.stdout, "era 1\n")


class ExitTest(ChildProcessTest):
    def test_a_process_ends_cleanly_with_its_manager_acquired(self):
        cases = {
            # The poll thread and the era monitor are making their first calls.
            "at once": "",
            # Both threads are idle, waiting for their next poll.
            "after the first pass": "wait_until_mirrored()",
            # A thread of the component is inside the token source.
            "in the token source": "slow_token.set(); entered.wait()",
        }
        for case, before_exit in cases.items():
            with self.subTest(case):
                self.data_dir = os.path.join(self.tmp, "exit-" + case.replace(" ", "-"))
                os.makedirs(self.data_dir)
                self.run_child(f"""
                    import logging, threading, time
                    import quillmarsh_sync
                    logging.basicConfig(level=logging.DEBUG)
                    quillmarsh_sync.set_extra_ca_file(CA_FILE)
                    slow_token, entered = threading.Event(), threading.Event()
                    def get_token():
                        if slow_token.is_set():
                            entered.set()
                            time.sleep(1)
                        return TOKEN
                    def wait_until_mirrored():
                        while not os.path.exists(os.path.join(DATA_DIR, "manifest.json")):
                            time.sleep(0.01)
                    manager = quillmarsh_sync.SyncManager.get_or_create(DATA_DIR, API_URL, get_token,
                                                                        poll_interval_s=0.05)
                    manager.acquire()
                    {before_exit}
                """)

    def test_a_python_thread_inside_the_component_at_exit_is_let_be(self):
        # The flock is given up by an exit hook that runs after the package's
        # own, so the daemon thread comes back out of the component while the
        # interpreter is going away.
        self.run_child("""
            import atexit, fcntl, threading
            lock_path = os.path.join(DATA_DIR, ".sync_flock")
            held = open(lock_path, "a")
            fcntl.flock(held, fcntl.LOCK_EX)
            atexit.register(held.close)
            import quillmarsh_sync
            quillmarsh_sync.set_extra_ca_file(CA_FILE)
            manager = quillmarsh_sync.SyncManager(DATA_DIR, API_URL, lambda: TOKEN)
            threading.Thread(target=manager.sync, daemon=True).start()
            wait_for_lock_waiter(lock_path)
        """)


if __name__ == "__main__":
    unittest.main()
