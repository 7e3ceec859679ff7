// "Background thread for era state monitoring." Polls /era/current and is
// the one place that decides an era transition is due; the transition runs
// on its thread, so no poll happens meanwhile.
#ifndef QUILLMARSH_SYNC_ERA_ERA_THREAD_H_
#define QUILLMARSH_SYNC_ERA_ERA_THREAD_H_

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "sync/support/background_thread.h"
#include "sync/support/event.h"
#include "sync/support/json_text.h"

namespace quillmarsh::sync {

class SyncManager;

class EraThread : public std::enable_shared_from_this<EraThread> {
 public:
  using TokenSource = std::function<std::string()>;
  using SearchCallback = std::function<void()>;

  // Fails as the transport policy does for `server_url`. Lives in a
  // std::shared_ptr, which its worker shares.
  EraThread(std::string server_url, TokenSource get_token, std::shared_ptr<SyncManager> sync_manager,
            double era_poll_interval_s = 600.0, SearchCallback kill_searches_fn = nullptr,
            SearchCallback restart_searches_fn = nullptr);
  ~EraThread();
  EraThread(const EraThread&) = delete;
  EraThread& operator=(const EraThread&) = delete;

  // Starts the worker, which polls at once and then every interval.
  // StateError "EraThread already started" when started.
  void start();
  // Asks the worker to end and waits up to 10 s; a transition in progress
  // may outlast that, and is left to finish.
  void stop();
  bool is_alive() const;

  // Worker body.
  void _run();
  // One poll; never fails.
  void _poll_once();
  void _mark_transition_failed(const std::string& context, const std::exception& exc);
  void _clear_transition_failed();

  const std::string _server_url;
  const TokenSource _get_token;
  const std::shared_ptr<SyncManager> _sync_manager;
  const double _poll_interval;
  const SearchCallback _kill_searches_fn;
  const SearchCallback _restart_searches_fn;
  std::shared_ptr<BackgroundThread> _thread;
  Event _stop_event;
  std::atomic<bool> _started{false};
  // From here on, the worker's own state once start has run.
  // As the manifest or the server held it; null while unknown.
  Json _last_known_era_id;
  std::optional<std::string> _last_known_state;
  bool _in_closing = false;
  bool _transition_failed = false;
  std::optional<std::string> _last_transition_error;
};

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_ERA_ERA_THREAD_H_
