"""The records a sync, a verification and a repair hand to Python, against
qmsync serve; what the passes do is the engine suites' business."""

import dataclasses
import json
import os
import sys
import tempfile
import unittest

from support import ServedEraTest, run_qmsync
from quillmarsh_sync import SyncResult, VerifyResult


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

        with open(os.path.join(self.data_dir, "features/equities/prices.bin"), "r+b") as f:
            f.write(b"\0" * 16)
        os.remove(os.path.join(self.data_dir, "docs/readme.txt"))
        check = manager.verify()
        self.assertEqual(check, VerifyResult(valid=False, corrupted_files=["features/equities/prices.bin"],
                                             missing_files=["docs/readme.txt"]))
        # The lists go back in as the paths to repair.
        manager.repair(check.corrupted_files + check.missing_files)
        self.assertEqual(manager.verify(), VerifyResult(valid=True, corrupted_files=[], missing_files=[]))

    def test_the_progress_observer_is_throttled_but_told_of_the_last_file(self):
        manager = self.manager()
        seen = []
        # Nothing between the start and the last file passes an hour's throttle.
        manager.set_progress_observer(seen.append, min_interval_s=3600)
        result = manager.sync()
        self.assertGreater(seen[-1].files_selected, 2)
        self.assertEqual([p.files_done for p in seen], [0, seen[-1].files_selected])
        self.assertEqual(seen[-1].bytes_done, seen[-1].bytes_selected)
        self.assertLessEqual(seen[-1].bytes_done, result.bytes_downloaded)
        with self.assertRaises(ValueError):
            manager.set_progress_observer(seen.append, min_interval_s=-1)

        # A failing observer changes nothing about the pass, and Python hears
        # of the failure as of any ignored one.
        os.remove(os.path.join(self.data_dir, "docs/readme.txt"))
        manager.set_progress_observer(lambda progress: 1 / 0)
        ignored = []
        previous_hook, sys.unraisablehook = sys.unraisablehook, ignored.append
        try:
            with self.assertLogs("quillmarsh.sync", "WARNING"):
                self.assertEqual(manager.sync().bytes_downloaded, len(self.files["docs/readme.txt"]))
        finally:
            sys.unraisablehook = previous_hook
        self.assertTrue(ignored)
        self.assertTrue(all(isinstance(u.exc_value, ZeroDivisionError) for u in ignored))


if __name__ == "__main__":
    unittest.main()
