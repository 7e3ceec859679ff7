"""Era transitions driven from Python: the era callbacks, the host's
sibling modules as they are called, missing or failing."""

import sys
import unittest
from unittest import mock

from support import ServedEraTest, wait_until
from quillmarsh_sync import SyncManager


class EraTest(ServedEraTest):
    # Each test changes what the server serves: one server per test.
    @classmethod
    def setUpClass(cls):
        import quillmarsh
        cls.quillmarsh = quillmarsh

    @classmethod
    def tearDownClass(cls):
        pass

    def setUp(self):
        import shutil
        import tempfile
        import quillmarsh_sync
        from support import ServedEra, era_one_files
        self.tmp = tempfile.mkdtemp(prefix="qmsync-py-era-")
        self.addCleanup(shutil.rmtree, self.tmp, True)
        self.era = ServedEra(self.tmp, era_one_files())
        self.addCleanup(self.era.stop)
        quillmarsh_sync.set_extra_ca_file(self.era.ca_file)
        super().setUp()
        self.manager().sync()

    def move_server_to_era_two(self, **era_fields):
        self.era.publish_era_two()
        self.era.set_era_state({"era": {"era_id": 2, **era_fields}, "state": "active"})

    def assertStillOnEraOne(self, manager):
        # What a refused move leaves on disk is the transition suite's business.
        self.assertEqual(manager.get_manifest().era_id, 1)


class MonitorTest(EraTest):
    def test_era_callbacks_hear_the_transition_the_monitor_runs(self):
        heard = []

        def twice(event_type, era_id):
            heard.append(("twice", event_type, era_id))

        class Listener:
            def on_era(self, event_type, era_id):
                heard.append(("listener", event_type, era_id))

        def failing(event_type, era_id):
            raise KeyError("no such search")

        manager = self.manager(shared=True)
        manager.register_era_callback(twice)
        manager.register_era_callback(twice)
        manager.register_era_callback(failing)
        manager.register_era_callback(twice)
        manager.unregister_era_callback(twice)  # the first of three
        listener = Listener()
        manager.register_era_callback(listener.on_era)
        manager.unregister_era_callback(listener.on_era)  # an equal bound method, not the same object
        manager.unregister_era_callback(print)  # never registered: nothing happens

        self.move_server_to_era_two()
        with self.assertLogs("quillmarsh.sync", "WARNING") as logs:
            manager.acquire()
            wait_until(lambda: ("twice", "restart", 2) in heard, "the restart callbacks")
            wait_until(lambda: self.quillmarsh.agent_onboarding.calls, "the update nudge")

        self.assertEqual(heard, [("twice", "kill", 1)] * 2 + [("twice", "restart", 2)] * 2)
        failures = [r for r in logs.records if r.getMessage() == "Era callback failed (kill): 'no such search'"]
        self.assertEqual(len(failures), 1)
        self.assertEqual(failures[0].exc_text, "KeyError: 'no such search'")
        self.assertEqual(manager.get_manifest().era_id, 2)

        # The host's modules, each called as it expects.
        self.assertEqual(self.quillmarsh.auth.calls, [2])
        opened, handled, closed = self.quillmarsh.search_tracking.calls
        self.assertEqual(opened[:2], ("open", manager._data_dir))
        self.assertEqual(opened[2]["identity"].data_dir, manager._data_dir)
        self.assertEqual(handled, ("handle_era_transition", 2, 1))
        self.assertEqual(closed, ("close",))
        self.assertEqual(self.quillmarsh.agent_onboarding.calls, [("era_change", 2, 1)])


class TriggerTest(EraTest):
    def test_a_connection_failure_of_check_update_is_a_warning_and_the_move_goes_on(self):
        self.quillmarsh.deployment.check_update_failure = ConnectionError("wheel cache unreachable")
        self.move_server_to_era_two()
        searches = []
        manager = self.manager()
        with self.assertLogs("quillmarsh.sync", "WARNING") as logs:
            manager.trigger_era_transition(2, lambda: searches.append("kill"), lambda: searches.append("restart"))
        self.assertIn("Could not check local wheel cache for library update: wheel cache unreachable",
                      [r.getMessage() for r in logs.records])
        self.assertEqual(searches, ["kill", "restart"])
        self.assertEqual(manager.get_manifest().era_id, 2)
        self.assertEqual(self.quillmarsh.deployment.calls, [("check_update", "0.0.3")])

    def test_each_refusal_reaches_the_caller_as_its_own_class_and_then_the_move_goes_through(self):
        from quillmarsh.deployment import LibraryUpdateRequired

        class SearchesBusy(Exception):
            pass

        busy = SearchesBusy("cannot stop now")

        def kill():
            raise busy

        self.move_server_to_era_two(min_library_version="999.0")
        manager = self.manager()
        with self.assertRaises(LibraryUpdateRequired) as raised:
            manager.trigger_era_transition(2)
        self.assertTrue(str(raised.exception).startswith("quillmarsh >= 999.0 required for era 2."))
        self.assertStillOnEraOne(manager)

        self.era.set_era_state({"era": {"era_id": 2}, "state": "active"})
        with self.assertRaises(SearchesBusy) as raised:
            manager.trigger_era_transition(2, kill)
        self.assertIs(raised.exception, busy)
        self.assertStillOnEraOne(manager)

        killed = []
        with mock.patch.dict(sys.modules, {"quillmarsh.search_tracking": None}):
            with self.assertRaises(ImportError):
                manager.trigger_era_transition(2, lambda: killed.append(True))
        self.assertEqual(killed, [])
        self.assertStillOnEraOne(manager)

        # Without an identity module the tracker is opened without one.
        self.quillmarsh.reset()
        with mock.patch.dict(sys.modules, {"quillmarsh.identity": None}):
            manager.trigger_era_transition(2)
        self.assertEqual(self.quillmarsh.search_tracking.calls[0], ("open", manager._data_dir, {}))
        self.assertEqual(manager.get_manifest().era_id, 2)

if __name__ == "__main__":
    unittest.main()
