// The era monitor's state machine. It remembers the era this client moved
// to and whether it has acted on a "closing" answer; the server's answer to
// each poll then decides between nothing, a transition, and giving the
// searches back after a close was called off.
#include "sync/era/era_thread.h"

#include "sync/collaborators/agent_onboarding.h"
#include "sync/collaborators/transport_security.h"
#include "sync/engine/transport.h"
#include "sync/era/era_api.h"
#include "sync/era/era_id.h"
#include "sync/errors.h"
#include "sync/support/log.h"
#include "sync/support/repr.h"
#include "sync/support/text.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {

EraThread::EraThread(std::string server_url, TokenSource get_token, std::shared_ptr<SyncManager> sync_manager,
                     double era_poll_interval_s, SearchCallback kill_searches_fn,
                     SearchCallback restart_searches_fn)
    : _server_url((validate_bearer_transport_url(server_url), std::move(server_url))),
      _get_token(std::move(get_token)),
      _sync_manager(std::move(sync_manager)),
      _poll_interval(era_poll_interval_s),
      _kill_searches_fn(std::move(kill_searches_fn)),
      _restart_searches_fn(std::move(restart_searches_fn)) {}

EraThread::~EraThread() = default;

void EraThread::start() {
  if (_started.load()) throw StateError("EraThread already started");
  _stop_event.clear();
  _started.store(true);
  // Taken as the manifest holds it: whatever it is, the monitor must run.
  if (const std::shared_ptr<Manifest> manifest = _sync_manager->_manifest.load()) {
    _last_known_era_id = manifest->era_id;
  }
  // The worker holds this object, so a stop that gives up waiting cannot
  // pull it from under a transition still running.
  _thread = std::make_shared<BackgroundThread>([self = shared_from_this()] { self->_run(); });
}

void EraThread::stop() {
  if (!_started.load()) return;
  _stop_event.set();
  if (_thread) _thread->join_for(10.0);
  _started.store(false);
}

bool EraThread::is_alive() const { return _thread && _thread->is_alive(); }

void EraThread::_run() {
  _poll_once();
  while (!_stop_event.is_set()) {
    if (_stop_event.wait(_poll_interval)) return;
    _poll_once();
  }
}

void EraThread::_poll_once() {
  try {
    const std::string token = _get_token();
    const HttpResponse response = _http_get(_server_url + "/era/current", token);
    // A server that is busy or between deployments is not news.
    if (response.status != 200) return;
    check_utf8(response.body);
    const Json data = _normalize_era_current_response(parse_json_text(response.body));
    if (!data.is_object()) throw TypeError("era response is not an object: " + quoted_json(data));
    // As it came: the comparisons below need no number, and the transition
    // converts it where it needs one.
    const Json era_id = data.contains("era_id") ? data["era_id"] : Json();
    const Json state = data.contains("state") ? data["state"] : Json("active");
    const Json next_closing_at = data.contains("next_closing_at") ? data["next_closing_at"] : Json();

    if (state == "active" && !next_closing_at.is_null()) {
      log_info("Scheduled close announced at %s. Continue normal operation.", {text_of_json(next_closing_at)});
    }

    if (_in_closing && state == "active" && era_ids_equal(era_id, _last_known_era_id)) {
      log_info("Era transition cancelled \u2014 resuming normal operation.");
      _in_closing = false;
      if (_restart_searches_fn) {
        try {
          _restart_searches_fn();
        } catch (const std::exception& e) {
          log_warning("Restart searches callback failed: %s", {e});
        }
      }
      return;
    }

    if (state == "closing" && !_in_closing) {
      _in_closing = true;
      log_info("Scheduled close announced at %s. Continue normal operation.", {text_of_json(next_closing_at)});
      try {
        _sync_manager->trigger_era_transition(era_id, _kill_searches_fn, _restart_searches_fn);
        _clear_transition_failed();
      } catch (const std::exception& e) {
        _mark_transition_failed("closing", e);
      }
      return;
    }

    if (!era_id.is_null() && !_last_known_era_id.is_null() && !era_ids_equal(era_id, _last_known_era_id)) {
      // A lower era counts too; the transition's gates judge the state.
      const Json previous_era_id = _last_known_era_id;
      _in_closing = false;
      try {
        _sync_manager->trigger_era_transition(era_id, _kill_searches_fn, _restart_searches_fn);
        _last_known_era_id = era_id;
        _clear_transition_failed();
      } catch (const std::exception& e) {
        // The old era stays known, so the next poll tries again.
        _mark_transition_failed("new era", e);
        return;
      }
      try {
        // The transition that just succeeded found the integer of era_id.
        agent_onboarding_slot().require()->update_nudge("era_change", era_integer(era_id).value_or(0),
                                                        era_integer(previous_era_id));
      } catch (const std::exception& e) {
        log_warning("update_nudge call failed: %s", {e});
      }
    }
  } catch (const std::exception& e) {
    log_warning("Era poll failed: %s", {e});
  }
}

void EraThread::_mark_transition_failed(const std::string& context, const std::exception& exc) {
  _transition_failed = true;
  _last_transition_error = context + ": " + exc.what();
  log_warning("Trigger era transition (%s) failed: %s", {context, exc});
}

void EraThread::_clear_transition_failed() {
  _transition_failed = false;
  _last_transition_error.reset();
}

}  // namespace quillmarsh::sync
