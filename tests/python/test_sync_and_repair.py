"""A full sync, verification and repair from Python, against qmsync serve."""

import dataclasses
import json
import os
import sys
import tempfile
import unittest

from support import ServedEraTest, run_qmsync
from quillmarsh_sync import Manifest, SyncResult, VerifyResult


class SyncTest(ServedEraTest):
    def test_sync_mirrors_the_era_and_reports_what_the_command_line_reports(self):
        manager = self.manager()
        self.assertIsNone(manager.get_manifest())
        self.assertTrue(manager.needs_sync())

        result = manager.sync()

        self.assertIsInstance(result, SyncResult)
        self.assertMirrors(self.data_dir, self.era.files)
        # The same pass by qmsync, into a directory of its own.
        other = tempfile.mkdtemp(dir=self.tmp)
        printed = json.loads(run_qmsync(
            "sync", "--json", "--data-dir", other, "--server", self.era.api_url, "--ca-file", self.era.ca_file,
            "--token-file", self.era.token_path).stdout)
        self.assertEqual(list(printed), [field.name for field in dataclasses.fields(SyncResult)])
        self.assertEqual(dataclasses.asdict(result), printed)
        self.assertEqual(result.era_id, 1)
        self.assertTrue(result.vocabulary_downloaded)
        self.assertTrue(result.shuffle_seed_downloaded)

        manifest = manager.get_manifest()
        self.assertIsInstance(manifest, Manifest)
        with open(os.path.join(self.data_dir, "manifest.json")) as f:
            self.assertEqual(manifest.to_dict(), json.load(f))
        self.assertEqual(manifest.era_id, 1)
        self.assertEqual(sorted(manifest.files), sorted(self.era.files))
        self.assertEqual(manifest.files["docs/empty.txt"]["size_bytes"], 0)

        self.assertFalse(manager.needs_sync())
        self.assertEqual(manager.sync().bytes_downloaded, 0)

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

        # Unthrottled, each file is told (and bytes between files, if slow).
        for path in ("docs/readme.txt", "features/futures/rolls.bin"):
            os.remove(os.path.join(self.data_dir, path))
        seen.clear()
        manager.set_progress_observer(seen.append, min_interval_s=0)
        manager.sync()
        self.assertEqual(list(dict.fromkeys(p.files_done for p in seen if p.files_selected == 2)), [0, 1, 2])
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
                self.assertEqual(manager.sync().bytes_downloaded, len(self.era.files["docs/readme.txt"]))
        finally:
            sys.unraisablehook = previous_hook
        self.assertTrue(ignored)
        self.assertTrue(all(isinstance(u.exc_value, ZeroDivisionError) for u in ignored))


class VerifyAndRepairTest(ServedEraTest):
    def test_verify_names_the_damage_and_repair_mends_it(self):
        manager = self.manager()
        manager.sync()
        self.assertEqual(manager.verify(), VerifyResult(valid=True, corrupted_files=[], missing_files=[]))

        prices = os.path.join(self.data_dir, "features/equities/prices.bin")
        with open(prices, "r+b") as f:  # same size, other bytes
            f.seek(1000)
            f.write(b"\0" * 16)
        os.remove(os.path.join(self.data_dir, "docs/readme.txt"))

        check = manager.verify()
        self.assertEqual(check, VerifyResult(valid=False, corrupted_files=["features/equities/prices.bin"],
                                             missing_files=["docs/readme.txt"]))

        result = manager.repair(check.corrupted_files + check.missing_files)
        self.assertEqual(result.bytes_downloaded,
                         len(self.era.files["features/equities/prices.bin"]) + len(self.era.files["docs/readme.txt"]))
        self.assertMirrors(self.data_dir, self.era.files)
        self.assertTrue(manager.verify().valid)

    def test_report_corruption_repairs_in_the_background(self):
        from support import wait_until
        manager = self.manager(shared=True)
        manager.sync()
        manager.acquire()
        prices = os.path.join(self.data_dir, "features/equities/prices.bin")
        with open(prices, "wb") as f:
            f.write(b"damaged")
        manager.report_corruption("features/equities/prices.bin")
        wait_until(lambda: manager.verify().valid, "the background repair")
        self.assertMirrors(self.data_dir, self.era.files)
        with self.assertRaises(ValueError):
            manager.report_corruption("not/in/the/manifest.bin")


if __name__ == "__main__":
    unittest.main()
