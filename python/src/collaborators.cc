#include "python/src/collaborators.h"

#include <pybind11/pybind11.h>

#include <memory>
#include <optional>
#include <string>

#include "python/src/failures.h"
#include "python/src/python_gate.h"
#include "sync/collaborators/agent_onboarding.h"
#include "sync/collaborators/auth.h"
#include "sync/collaborators/deployment.h"
#include "sync/collaborators/identity.h"
#include "sync/collaborators/search_tracking.h"
#include "sync/collaborators/transport_security.h"

namespace quillmarsh::sync::python {
namespace {

namespace py = pybind11;
using namespace pybind11::literals;

// Imported afresh at each use (a lookup in sys.modules once loaded).
py::object host(const char* module_name, const char* attribute) {
  return py::module_::import(module_name).attr(attribute);
}

py::object optional_era(const std::optional<std::int64_t>& era_id) {
  return era_id ? py::object(py::int_(*era_id)) : py::object(py::none());
}

bool importable(const char* module_name) {
  try {
    py::module_::import(module_name);
    return true;
  } catch (const py::error_already_set&) {
    return false;
  }
}

bool truthy(py::handle value) {
  const int r = PyObject_IsTrue(value.ptr());
  if (r < 0) throw py::error_already_set();
  return r != 0;
}

// Whether the process has no host library at all: a script that uses the
// binding on its own. A host whose package fails to load is still a host.
// Needs the GIL.
bool outside_the_host() {
  try {
    py::module_::import("quillmarsh");
    return false;
  } catch (py::error_already_set& e) {
    const bool no_package = e.matches(PyExc_ModuleNotFoundError) &&
                            py::getattr(e.value(), "name", py::none()).equal(py::str("quillmarsh"));
    if (!no_package) throw;
    return true;
  }
}

// The host's policy decides inside the host; on its own the binding sends a
// token where qmsync would, under the component's own policy.
class PythonTransportSecurity : public TransportSecurity {
 public:
  void validate_bearer_transport_url(const std::string& url) override {
    const bool own_policy = with_python([&] {
      if (outside_the_host()) return true;
      host("quillmarsh._transport_security", "validate_bearer_transport_url")(url);
      return false;
    });
    if (own_policy) DefaultTransportSecurity().validate_bearer_transport_url(url);
  }

  static void load() {
    with_python([] {
      if (!outside_the_host()) py::module_::import("quillmarsh._transport_security");
    });
  }
};

class PythonAuth : public Auth {
 public:
  void notify_era_change(std::int64_t new_era_id) override {
    with_python([&] { host("quillmarsh.auth", "notify_era_change")(new_era_id); });
  }
};

class PythonDeployment : public Deployment {
 public:
  std::string _CURRENT_VERSION() override {
    return with_python([] { return py::str(host("quillmarsh.deployment", "_CURRENT_VERSION")).cast<std::string>(); });
  }

  std::optional<std::string> check_update(const std::string& current_version) override {
    return with_python([&]() -> std::optional<std::string> {
      py::object newer = host("quillmarsh.deployment", "check_update")(current_version);
      if (newer.is_none()) return std::nullopt;
      return py::str(newer).cast<std::string>();
    });
  }

  int _compare_versions(const std::string& a, const std::string& b) override {
    return with_python([&] {
      // Any number will do, as for the host's own callers.
      py::object order = host("quillmarsh.deployment", "_compare_versions")(a, b);
      const py::int_ zero(0);
      if (order < zero) return -1;
      return order > zero ? 1 : 0;
    });
  }

  UpdateResult auto_update(const std::string& min_ver) override {
    return with_python([&] {
      py::object answer = host("quillmarsh.deployment", "auto_update")(min_ver);
      UpdateResult result;
      if (py::hasattr(answer, "success")) result.success = truthy(answer.attr("success"));
      if (py::hasattr(answer, "warning")) result.warning = py::str(answer.attr("warning")).cast<std::string>();
      return result;
    });
  }
};

// An identity is opaque to the component: it only hands it to the tracker.
class PythonIdentity : public Identity {
 public:
  explicit PythonIdentity(PyRef identity) : identity_(std::move(identity)) {}
  py::handle get() const { return identity_.get(); }

 private:
  PyRef identity_;
};

class PythonIdentityModule : public IdentityModule {
 public:
  std::shared_ptr<Identity> resolve_identity_for_data_dir(const std::string& data_dir) override {
    return with_python([&]() -> std::shared_ptr<Identity> {
      py::object identity = host("quillmarsh.identity", "resolve_identity_for_data_dir")(data_dir);
      if (identity.is_none()) return nullptr;
      return std::make_shared<PythonIdentity>(PyRef(identity));
    });
  }
};

class PythonSearchTracker : public SearchTracker {
 public:
  explicit PythonSearchTracker(PyRef tracker) : tracker_(std::move(tracker)) {}

  void handle_era_transition(std::int64_t new_era_id, std::optional<std::int64_t> previous_era_id) override {
    with_python([&] {
      tracker_.get().attr("handle_era_transition")("new_era_id"_a = new_era_id,
                                                   "previous_era_id"_a = optional_era(previous_era_id));
    });
  }
  void close() override {
    with_python([&] { tracker_.get().attr("close")(); });
  }

 private:
  PyRef tracker_;
};

class PythonSearchTracking : public SearchTracking {
 public:
  std::shared_ptr<SearchTracker> open_tracker(const std::string& data_dir,
                                              std::optional<std::shared_ptr<Identity>> identity) override {
    return with_python([&] {
      py::object tracker_class = host("quillmarsh.search_tracking", "SearchTracker");
      py::object tracker;
      // The component asks the identity module and opens the tracker in two
      // calls; a module that cannot be imported means no keyword at all,
      // which only the second call can still tell.
      if (!identity || (!*identity && !importable("quillmarsh.identity"))) {
        tracker = tracker_class(data_dir);
      } else {
        const auto* own = dynamic_cast<const PythonIdentity*>(identity->get());
        py::object value = own ? py::reinterpret_borrow<py::object>(own->get()) : py::object(py::none());
        tracker = tracker_class(data_dir, "identity"_a = value);
      }
      return std::make_shared<PythonSearchTracker>(PyRef(tracker));
    });
  }
};

class PythonAgentOnboarding : public AgentOnboarding {
 public:
  void update_nudge(const std::string& event, std::int64_t new_era_id,
                    std::optional<std::int64_t> previous_era_id) override {
    with_python([&] {
      host("quillmarsh.agent_onboarding", "update_nudge")(event, "new_era_id"_a = new_era_id,
                                                          "previous_era_id"_a = optional_era(previous_era_id));
    });
  }
};

// Fills `slot` with `adapter`; taking the module from the slot imports the
// host module, so a missing one fails where the component imports it.
template <typename Module>
void install(CollaboratorSlot<Module>& slot, std::shared_ptr<Module> adapter) {
  slot.set(std::move(adapter));
  slot.set_loader([name = slot.module_name()] { with_python([&] { py::module_::import(name); }); });
}

}  // namespace

void install_collaborator_adapters() {
  transport_security_slot().set(std::make_shared<PythonTransportSecurity>());
  transport_security_slot().set_loader(&PythonTransportSecurity::load);
  install<Auth>(auth_slot(), std::make_shared<PythonAuth>());
  install<Deployment>(deployment_slot(), std::make_shared<PythonDeployment>());
  install<SearchTracking>(search_tracking_slot(), std::make_shared<PythonSearchTracking>());
  install<IdentityModule>(identity_slot(), std::make_shared<PythonIdentityModule>());
  install<AgentOnboarding>(agent_onboarding_slot(), std::make_shared<PythonAgentOnboarding>());
}

}  // namespace quillmarsh::sync::python
