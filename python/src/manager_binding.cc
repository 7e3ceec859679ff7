#include "python/src/manager_binding.h"

#include <pybind11/stl.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "python/src/failures.h"
#include "python/src/process_exit.h"
#include "python/src/python_gate.h"
#include "python/src/records_binding.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync::python {
namespace {

namespace py = pybind11;
using namespace pybind11::literals;

std::string path_text(py::handle path) {
  return py::module_::import("os").attr("fspath")(path).cast<std::string>();
}

std::string type_name_of(py::handle value) {
  return py::str(value.get_type().attr("__name__")).cast<std::string>();
}

// None stays empty, for the component's own "no token source" failure.
SyncManager::TokenSource token_source(py::handle get_token) {
  if (!PyCallable_Check(get_token.ptr())) {
    throw py::type_error("get_token must be callable, got " + type_name_of(get_token));
  }
  return [fn = PyRef(get_token)] { return with_python([&] { return py::str(fn.get()()).cast<std::string>(); }); };
}

std::function<void()> optional_callback(py::handle callback) {
  if (callback.is_none()) return nullptr;
  return [fn = PyRef(callback)] { with_python([&] { fn.get()(); }); };
}

// Kept recognisable inside the manager's list, so that unregistering finds
// a Python callable by equality, as list.remove does.
struct PythonEraCallback {
  PyRef callable;
  void operator()(const std::string& event_type, std::int64_t era_id) const {
    with_python([&] { callable.get()(event_type, era_id); });
  }
};

void unregister_era_callback(SyncManager& self, py::handle callback) {
  std::vector<SyncManager::EraCallback> registered;
  {
    ReleasedGil nogil;
    std::lock_guard<std::mutex> lock(self._era_callbacks_lock);
    registered = self._era_callbacks;
  }
  SyncManager::EraCallback found;
  for (const SyncManager::EraCallback& entry : registered) {
    const auto* ours = entry ? entry->target<PythonEraCallback>() : nullptr;
    if (!ours) continue;
    const int equal = PyObject_RichCompareBool(ours->callable.get().ptr(), callback.ptr(), Py_EQ);
    if (equal < 0) throw py::error_already_set();
    if (equal) {
      found = entry;
      break;
    }
  }
  if (!found) return;
  ReleasedGil nogil;
  self.unregister_era_callback(found);
}

// Lets through at most one call per `min_interval_s`, and always a batch's
// last (every selected file done), so that an observer that redraws a
// display does not fight the download threads for the GIL.
class ProgressThrottle {
 public:
  explicit ProgressThrottle(double min_interval_s)
      // Any wait beyond a day is "never" short of the last call.
      : interval_(std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(std::min(min_interval_s, 86400.0)))) {}

  bool pass(const DownloadProgress& progress) {
    const Clock::time_point now = Clock::now();
    std::lock_guard<std::mutex> lock(mu_);
    const bool last = progress.files_done == progress.files_selected;
    if (!last && told_ && now - *told_ < interval_) return false;
    told_ = now;
    return true;
  }

 private:
  using Clock = std::chrono::steady_clock;
  const Clock::duration interval_;
  std::mutex mu_;
  std::optional<Clock::time_point> told_;
};

void set_progress_observer(SyncManager& self, py::handle observer, double min_interval_s) {
  if (!(min_interval_s >= 0)) throw py::value_error("min_interval_s must not be negative");
  ProgressObserver fn;
  if (!observer.is_none()) {
    fn = [observer = PyRef(observer),
          throttle = std::make_shared<ProgressThrottle>(min_interval_s)](const DownloadProgress& progress) {
      if (!throttle->pass(progress)) return;
      GilFromAnyThread gil;
      if (!gil.held()) return;
      try {
        observer.get()(python_progress(progress));
      } catch (py::error_already_set& e) {
        // The component ignores an observer's failure; Python hears of it
        // the way it hears of any ignored one.
        e.discard_as_unraisable(py::reinterpret_borrow<py::object>(observer.get()));
      }
    };
  }
  ReleasedGil nogil;
  self.set_progress_observer(std::move(fn));
}

// Every false value (None, "") is an empty URL to the manager's own check.
std::string server_url_text(py::handle server_url) {
  const int truth = PyObject_IsTrue(server_url.ptr());
  if (truth < 0) throw py::error_already_set();
  if (truth == 0) return "";
  if (!py::isinstance<py::str>(server_url)) {
    throw py::type_error("server_url must be str, not " + type_name_of(server_url));
  }
  return server_url.cast<std::string>();
}

// The arguments are checked in the manager's order: the token source, the
// URL, then the directory.
std::shared_ptr<SyncManager> construct(py::handle data_dir, py::handle server_url_arg, py::handle get_token,
                                       double poll_interval_s, bool shared) {
  SyncManager::TokenSource source = token_source(get_token);
  const std::string server_url = server_url_text(server_url_arg);
  std::string dir = path_text(data_dir);
  ReleasedGil nogil;
  std::shared_ptr<SyncManager> manager =
      shared ? SyncManager::get_or_create(dir, server_url, std::move(source), poll_interval_s)
             : SyncManager::create(std::move(dir), server_url, std::move(source), poll_interval_s);
  note_manager(manager);
  return manager;
}

}  // namespace

void bind_manager(py::module_& m) {
  py::class_<SyncManager, std::shared_ptr<SyncManager>>(
      m, "SyncManager",
      "Data synchronization manager with background polling and IPC.\n\n"
      "Keeps one local data directory identical to the data set that the server publishes for the "
      "current era.")
      .def(py::init([](py::handle data_dir, py::handle server_url, py::handle get_token,
                       double poll_interval_s) {
             return construct(data_dir, server_url, get_token, poll_interval_s, false);
           }),
           "data_dir"_a, "server_url"_a, "get_token"_a, "poll_interval_s"_a = 600.0,
           "Builds a manager from local state only; contacts no server.")
      .def_static(
          "get_or_create",
          [](py::handle data_dir, py::handle server_url, py::handle get_token, double poll_interval_s) {
            return construct(data_dir, server_url, get_token, poll_interval_s, true);
          },
          "data_dir"_a, "server_url"_a, "get_token"_a, "poll_interval_s"_a = 600.0,
          "Get existing or create new SyncManager for this data_dir. One manager per real path; "
          "ValueError when it exists with another server_url.")
      .def(
          "acquire", [](SyncManager& self) { ReleasedGil nogil; self.acquire(); },
          "Register as consumer, start threads if first.")
      .def(
          "release", [](SyncManager& self) { ReleasedGil nogil; self.release(); },
          "Deregister as consumer, stop threads if last.")
      .def_property_readonly("consumer_count", &SyncManager::consumer_count,
                             "Return the current number of active consumers.")
      .def(
          "sync",
          [](SyncManager& self) {
            SyncResult result;
            {
              ReleasedGil nogil;
              result = self.sync();
            }
            return python_sync_result(result);
          },
          "Full sync: manifest, compare, download, verify, atomic write.")
      .def(
          "start", [](SyncManager& self) { ReleasedGil nogil; self.start(); },
          "Start background sync polling loop; StateError when already running.")
      .def(
          "stop", [](SyncManager& self) { ReleasedGil nogil; self.stop(); },
          "Stop background sync polling loop; waits for work in progress.")
      .def(
          "is_alive", [](const SyncManager& self) { ReleasedGil nogil; return self.is_alive(); },
          "Health check returning thread responsiveness.")
      .def("status", &SyncManager::status, "Return the current human-readable sync status, if any.")
      .def("get_manifest", &SyncManager::get_manifest, "Return current local Manifest or None.")
      .def(
          "needs_sync", [](SyncManager& self) { ReleasedGil nogil; return self.needs_sync(); },
          "Lightweight sync check using version plus local integrity state.")
      .def(
          "verify",
          [](SyncManager& self) {
            VerifyResult result;
            {
              ReleasedGil nogil;
              result = self.verify();
            }
            return python_verify_result(result);
          },
          "Verify local files against manifest existence, size, and checksum.")
      .def(
          "repair",
          [](SyncManager& self, std::vector<std::string> corrupted_files) {
            SyncResult result;
            {
              ReleasedGil nogil;
              result = self.repair(corrupted_files);
            }
            return python_sync_result(result);
          },
          "corrupted_files"_a, "Re-download specified corrupted/missing files.")
      .def(
          "report_corruption",
          [](SyncManager& self, const std::string& file_path) {
            ReleasedGil nogil;
            self.report_corruption(file_path);
          },
          "file_path"_a,
          "Queue a file found bad for repair on a background thread; StateError when the service is not running.")
      .def(
          "request_for_sync",
          [](SyncManager& self) {
            ReleasedGil nogil;
            return self.request_for_sync();
          },
          "Cross-process sync trigger, returns file paths.")
      .def(
          "register_era_callback",
          [](SyncManager& self, py::handle callback) {
            auto entry = std::make_shared<const SyncManager::EraCallbackFn>(PythonEraCallback{PyRef(callback)});
            ReleasedGil nogil;
            self.register_era_callback(std::move(entry));
          },
          "callback"_a, "Register a callback for era change events: callback(event_type, era_id).")
      .def("unregister_era_callback", &unregister_era_callback, "callback"_a,
           "Unregister an era change callback: the first registration equal to it.")
      .def(
          "cleanup_old_eras",
          [](SyncManager& self, bool keep_current) {
            ReleasedGil nogil;
            return self.cleanup_old_eras(keep_current);
          },
          "keep_current"_a = true, "Delete non-current era directories, return bytes freed.")
      .def(
          "trigger_era_transition",
          [](SyncManager& self, std::int64_t new_era_id, py::handle kill_searches_fn, py::handle restart_searches_fn) {
            std::function<void()> kill = optional_callback(kill_searches_fn);
            std::function<void()> restart = optional_callback(restart_searches_fn);
            ReleasedGil nogil;
            self.trigger_era_transition(new_era_id, std::move(kill), std::move(restart));
          },
          "new_era_id"_a, "kill_searches_fn"_a = py::none(), "restart_searches_fn"_a = py::none(),
          "Move the data directory to era new_era_id while searches are stopped.")
      .def("set_progress_observer", &set_progress_observer, "observer"_a, "min_interval_s"_a = 0.25,
           "observer(DownloadProgress) is told, with the GIL held, as each download batch advances: at most "
           "once per min_interval_s, and always when the batch's last file is done. None removes it.")
      .def_property_readonly("_data_dir", [](const SyncManager& self) { return self._data_dir; })
      .def_property_readonly("_server_url", [](const SyncManager& self) { return self._server_url; })
      .def_property_readonly("_poll_interval", [](const SyncManager& self) { return self._poll_interval; })
      .def("__repr__", [](const SyncManager& self) {
        return "<SyncManager data_dir=" + py::repr(py::str(self._data_dir)).cast<std::string>() +
               " server_url=" + py::repr(py::str(self._server_url)).cast<std::string>() + ">";
      });
}

}  // namespace quillmarsh::sync::python
