"""Era transitions driven from Python: the era callbacks, the host's
sibling modules as they are called, missing or failing."""

import sys
import tempfile
import unittest
from unittest import mock

from support import ServedEraTest, wait_until


class EraTest(ServedEraTest):
    def test_refusals_reach_the_caller_as_their_own_classes_and_the_host_hears_of_each_move(self):
        from quillmarsh.deployment import LibraryUpdateRequired
        # Two directories on era 1: one moved by trigger_era_transition, one
        # by the monitor that acquire starts.
        manager = self.manager()
        manager.sync()
        monitored = self.manager(tempfile.mkdtemp(dir=self.tmp), shared=True)
        monitored.sync()
        self.publish(era=2)

        class SearchesBusy(Exception):
            pass

        busy = SearchesBusy("cannot stop now")

        def kill():
            raise busy

        killed = []
        self.set_era_state({"era": {"era_id": 2, "min_library_version": "999.0"}, "state": "active"})
        with self.assertRaisesRegex(LibraryUpdateRequired, r"^quillmarsh >= 999\.0 required for era 2\."):
            manager.trigger_era_transition(2)
        self.set_era_state({"era": {"era_id": 2}, "state": "active"})
        with self.assertRaises(SearchesBusy) as raised:
            manager.trigger_era_transition(2, kill)
        self.assertIs(raised.exception, busy)
        with mock.patch.dict(sys.modules, {"quillmarsh.search_tracking": None}), self.assertRaises(ImportError):
            manager.trigger_era_transition(2, lambda: killed.append(True))
        self.assertEqual(killed, [])
        # What a refused move leaves on disk is the transition suite's business.
        self.assertEqual(manager.get_manifest().era_id, 1)

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
        self.assertEqual(manager.get_manifest().era_id, 2)
        self.assertEqual(self.quillmarsh.deployment.calls, [("check_update", "0.0.3")])
        self.assertEqual(self.quillmarsh.search_tracking.calls[0], ("open", manager._data_dir, {}))

        heard = []

        def twice(event_type, era_id):
            heard.append((event_type, era_id))

        class Listener:
            def on_era(self, event_type, era_id):
                heard.append(("listener", event_type, era_id))

        def failing(event_type, era_id):
            raise KeyError("no such search")

        for callback in (twice, twice, failing, twice):
            monitored.register_era_callback(callback)
        monitored.unregister_era_callback(twice)  # the first of three
        listener = Listener()
        monitored.register_era_callback(listener.on_era)
        monitored.unregister_era_callback(listener.on_era)  # an equal bound method, not the same object
        monitored.unregister_era_callback(print)  # never registered: nothing happens
        self.quillmarsh.reset()
        with self.assertLogs("quillmarsh.sync", "WARNING") as logs:
            monitored.acquire()
            wait_until(lambda: ("restart", 2) in heard, "the restart callbacks")
            wait_until(lambda: self.quillmarsh.agent_onboarding.calls, "the update nudge")
        self.assertEqual(heard, [("kill", 1)] * 2 + [("restart", 2)] * 2)
        failures = [r for r in logs.records if r.getMessage() == "Era callback failed (kill): 'no such search'"]
        self.assertEqual(len(failures), 1)
        self.assertEqual(failures[0].exc_text, "KeyError: 'no such search'")
        self.assertEqual(monitored.get_manifest().era_id, 2)
        # The host's modules, each called as it expects.
        self.assertEqual(self.quillmarsh.auth.calls, [2])
        opened, handled, closed = self.quillmarsh.search_tracking.calls
        self.assertEqual(opened[:2], ("open", monitored._data_dir))
        self.assertEqual(opened[2]["identity"].data_dir, monitored._data_dir)
        self.assertEqual((handled, closed), (("handle_era_transition", 2, 1), ("close",)))
        self.assertEqual(self.quillmarsh.agent_onboarding.calls, [("era_change", 2, 1)])


if __name__ == "__main__":
    unittest.main()
