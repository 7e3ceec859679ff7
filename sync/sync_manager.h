// SyncManager: keeps one local data directory identical to the data set
// that the server publishes for the current era.
#ifndef QUILLMARSH_SYNC_SYNC_MANAGER_H_
#define QUILLMARSH_SYNC_SYNC_MANAGER_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "sync/engine/download_progress.h"
#include "sync/engine/staged_download.h"
#include "sync/engine/transport.h"
#include "sync/errors.h"
#include "sync/manifest.h"
#include "sync/paths/cached_digest.h"
#include "sync/paths/manifest_paths.h"
#include "sync/records.h"
#include "sync/support/background_thread.h"
#include "sync/support/event.h"
#include "sync/support/owner_lock.h"
#include "sync/support/shared_slot.h"

namespace quillmarsh::sync {

class EraThread;

// "Data synchronization manager with background polling and IPC."
//
// Lives in a std::shared_ptr (see create): every background thread holds
// one, so no thread ever outlives the object it works on. Members with a
// leading underscore are the manager's internal state and steps; they are
// visible for the component's own subsystems and tests, not for callers.
class SyncManager : public std::enable_shared_from_this<SyncManager> {
 public:
  using TokenSource = std::function<std::string()>;
  using EraCallbackFn = std::function<void(const std::string& event_type, std::int64_t era_id)>;
  // Callbacks are compared by identity, so the same one may be registered
  // twice and unregistered once.
  using EraCallback = std::shared_ptr<const EraCallbackFn>;
  // Vocabularies by named universe, in sorted path order.
  using Vocabularies = Json;

  // Builds a manager from local state only; contacts no server. Fails with
  // TypeError (no token source), ValueError (empty server_url), whatever the
  // transport policy raises for server_url, or FileNotFoundError (data_dir
  // is not an existing directory), in that order.
  static std::shared_ptr<SyncManager> create(std::string data_dir, std::string server_url,
                                             TokenSource get_token, double poll_interval_s = 600.0);
  // "Get existing or create new SyncManager for this data_dir." One manager
  // per real path; ValueError when it exists with another server_url. The
  // newest get_token replaces the old one.
  static std::shared_ptr<SyncManager> get_or_create(const std::string& data_dir, const std::string& server_url,
                                                    TokenSource get_token, double poll_interval_s = 600.0);
  ~SyncManager();
  SyncManager(const SyncManager&) = delete;
  SyncManager& operator=(const SyncManager&) = delete;

  // --- Public operations ---------------------------------------------------

  // "Register as consumer, start threads if first." The first consumer
  // starts the poll thread and the era monitor.
  void acquire();
  // "Deregister as consumer, stop threads if last." The last one also takes
  // the manager out of the registry.
  void release();
  // "Return the current number of active consumers."
  std::int64_t consumer_count() const { return _consumer_count.load(); }

  // "Full sync: manifest, compare, download, verify, atomic write." One
  // locked pass; returns what it did.
  SyncResult sync();
  // "Start background sync polling loop." StateError when already running.
  void start();
  // "Stop background sync polling loop." Waits for work in progress.
  void stop();
  // "Health check returning thread responsiveness."
  bool is_alive() const;
  // "Return the current human-readable sync status, if any."
  std::optional<std::string> status() const;
  // "Return current local Manifest or None."
  std::shared_ptr<Manifest> get_manifest() const;
  // "Lightweight sync check using version plus local integrity state."
  bool needs_sync();
  // "Cross-process sync trigger, returns file paths." Concurrent callers
  // share one pass.
  std::vector<std::string> request_for_sync();
  // "Register a callback for era change events."
  void register_era_callback(EraCallback callback);
  // "Unregister an era change callback." Removes the first registration.
  void unregister_era_callback(const EraCallback& callback);
  // Moves the data directory to era `new_era_id` while searches are stopped
  // (kill before, restart after a complete run); fails, leaving the live data
  // whole or moved as far as the failure allowed, when it cannot. The era is
  // taken as the server gave it (null when it named none); an id without an
  // integer fails where the run first needs one.
  void trigger_era_transition(const Json& new_era_id, std::function<void()> kill_searches_fn = nullptr,
                              std::function<void()> restart_searches_fn = nullptr);
  // "Delete non-current era directories, return bytes freed." With
  // keep_current false, the current data goes as well.
  std::int64_t cleanup_old_eras(bool keep_current = true);

  // --- State (set in this order by the constructor) ------------------------

  const std::string _data_dir;
  const std::string _server_url;
  const double _poll_interval;
  SharedSlot<Manifest> _manifest;
  std::atomic<bool> _running{false};
  std::atomic<bool> _consumer_lifecycle_started{false};
  SharedSlot<BackgroundThread> _sync_thread;
  Event _stop_event;
  std::mutex _sync_lock;
  std::mutex _consumer_lock;
  const std::string _hash_cache_path;
  std::mutex _hash_cache_lock;
  bool _hash_cache_dirty = false;
  DigestCache _hash_cache;  // read, changed and written out under _hash_cache_lock
  const std::string _consumer_count_path;
  std::atomic<std::int64_t> _consumer_count{0};
  std::atomic<bool> _in_transition{false};
  std::vector<std::string> _repair_queue;
  std::mutex _repair_lock;
  std::shared_ptr<Event> _coalescing_event;
  std::mutex _coalescing_lock;
  SharedSlot<const std::string> _status_message;
  std::vector<EraCallback> _era_callbacks;
  std::mutex _era_callbacks_lock;
  const std::string _flock_path;
  std::optional<int> _flock_fd;
  OwnerLock _flock_lock;
  SharedSlot<const Vocabularies> _vocabulary;
  std::mutex _cleanup_lock;
  std::shared_ptr<BackgroundThread> _cleanup_thread;
  SharedSlot<EraThread> _era_thread;

  // --- Transport ----------------------------------------------------------

  // GET with a fresh bearer token from the token source.
  // With a `sink`, an accepted body streams there (see BodySink).
  HttpResponse _http_get(const std::string& url, std::int64_t range_start = 0, std::int64_t range_end = -1,
                         const BodySink* sink = nullptr);
  HttpResponse _http_get_public(const std::string& url, std::int64_t range_start = 0,
                                std::int64_t range_end = -1, const BodySink* sink = nullptr);
  // The whole-file GET of one download as a request, for a caller that
  // opens it itself: with a fresh token, or public.
  HttpRequest _download_request(const std::string& url, bool public_download, const BodySink* sink);
  std::string _fresh_token();
  // Replaces the token source (a reused manager takes its newest caller's).
  void _set_get_token(TokenSource get_token);

  // --- The sync pass ------------------------------------------------------

  // "Internal sync implementation (must hold _sync_lock)." The caller also
  // holds the cross-process lock.
  SyncResult _sync_impl();
  // _sync_impl between _acquire_flock and _release_flock; the caller holds
  // _sync_lock.
  SyncResult _sync_impl_under_flock();
  // Files of `server_manifest` that must come down, as copies of their
  // entries; DiskSpaceError when they will not fit.
  Json _select_files_to_download(const Manifest& server_manifest, SyncResult& result);
  // Brings the selected files and the era artefacts; true when a vocabulary
  // came down.
  bool _download_selected_files(Json files_to_download, SyncResult& result, Manifest& server_manifest);
  // Fills the record's metadata and counts after the commit.
  void _fill_result_counts(SyncResult& result, const Manifest& server_manifest, bool vocab_downloaded);
  // Whether one entry of a manifest in force is as it should be on disk.
  bool _local_entry_passes(const ManifestEntry& entry, ManifestPathResolver& paths);

  // --- Downloads ----------------------------------------------------------

  using RetryStatusCallback = std::function<void(double wait_s)>;
  // "Download a single file with checksum verification and atomic write."
  void _download_file(const std::string& file_path, const Json& file_info, SyncResult& result,
                      int max_retries = 3, const RetryStatusCallback& retry_status_callback = nullptr,
                      const std::optional<std::string>& target_data_dir = std::nullopt);
  // "Download a set of independent files concurrently."
  // The batch owns its entries; a caller done with them moves them in.
  void _download_files_parallel(Json files_to_download, SyncResult& result);
  // The parts of _download_file that a batch also runs apart. The target,
  // its parent directory made; fails as _download_file would before any
  // request. `places`, when given, resolves and makes under this manager's
  // own data directory: a batch walks each directory its files share once.
  DownloadTarget _download_target(const std::string& file_path, const Json& file_info,
                                  const std::optional<std::string>& target_data_dir,
                                  TargetPlaces* places = nullptr);
  // The attempts from `first_attempt` on; a later first attempt waits first
  // as the attempt before it would have.
  void _download_attempts(const DownloadTarget& target, SyncResult& result, int max_retries,
                          const RetryStatusCallback& retry_status_callback, int first_attempt);
  // Ends a first attempt made as one whole-file GET of a file with nothing
  // staged, given how its exchange ended (a head timeout's retries already
  // spent): true when the file is in place, false when the next attempt must
  // follow; throws what ends the download at once. Not for a file that
  // comes in ranged chunks.
  bool _end_first_attempt(const DownloadTarget& target, StagedFile& staged, OpenedResponse opened,
                          std::exception_ptr failure, SyncResult& result);
  void _commit_download(const DownloadTarget& target, StagedFile& staged, const std::string& actual_sha,
                        SyncResult& result);

  // --- Hash cache and local comparison --------------------------------------

  // What a cached digest is valid for: size, modification and status-change
  // times in nanoseconds, inode.
  struct CacheStatKey {
    std::int64_t size_bytes = 0;
    std::int64_t mtime_ns = 0;
    std::int64_t ctime_ns = 0;
    std::int64_t inode = 0;
    bool operator==(const CacheStatKey&) const = default;
  };
  // "Load local SHA cache; invalid cache content is a cold miss." Never fails.
  DigestCache _load_hash_cache();
  // Writes the cache if it holds anything the file may lack; a failed write
  // is logged and retried at the next call.
  void _persist_hash_cache();
  // OSError when the stat fails.
  static CacheStatKey _cache_stat_key(const std::string& local_path);
  static CacheStatKey _cache_stat_key_of(const FileStat& st);
  // `expected_sha` when the cache proves the file still has that digest.
  std::optional<std::string> _cached_local_sha(const std::string& file_path, const std::string& local_path,
                                               const std::string& expected_sha);
  // Records the digest just computed for the file as it stands now, or as
  // `now` says it stands when the caller has just looked.
  void _remember_local_sha(const std::string& file_path, const std::string& local_path,
                           const std::string& actual_sha, const FileStat* now = nullptr);
  // Whether the local file has the entry's size and digest; the cache is
  // neither read nor written unless `cache_allowed`.
  bool _local_file_matches_manifest(const std::string& file_path, const std::string& local_path,
                                    const Json& file_info, bool cache_allowed = true);
  // As above, for a decoded entry; `known` is the file's stat when the
  // caller already has it.
  bool _local_file_matches_entry(const ManifestEntry& entry, const std::string& local_path, bool cache_allowed,
                                 const std::optional<FileStat>& known = std::nullopt);
  bool _local_manifest_files_complete(const Manifest& manifest);

  // --- Era artefacts --------------------------------------------------------

  // Brings every universe's vocabulary of `server_manifest` into the data
  // directory (or `target_data_dir`), repairing incomplete entries of its
  // files; true when at least one was downloaded.
  bool _download_vocabulary(Manifest& server_manifest,
                            const std::optional<std::string>& target_data_dir = std::nullopt);
  // Fills in a missing digest or corrects the size of the entry of
  // `file_path` from validated bytes; IntegrityError for a stated digest
  // that differs.
  void _repair_vocabulary_manifest_entry(Manifest& server_manifest, const std::string& file_path,
                                         std::string_view body,
                                         const std::optional<std::string>& reason = std::nullopt);
  // Fetches the era's shuffle seed unless a valid one of the era in force
  // stands; true when a new one was fetched.
  bool _download_shuffle_seed(const Manifest& server_manifest,
                              const std::optional<std::string>& target_data_dir = std::nullopt);

  // --- Verification and repair -------------------------------------------

  // "Verify local files against manifest existence, size, and checksum."
  // Reads only; always hashes afresh.
  VerifyResult verify();
  // "Re-download specified corrupted/missing files." Under the file lock;
  // paths the manifest lacks are passed over, and the first failure ends the
  // batch and reaches the caller.
  SyncResult repair(const std::vector<std::string>& corrupted_files);
  // Queues a manifest path found bad and repairs it on a background thread.
  // StateError when the service is not running, ValueError for a path that
  // the manifest in force lacks.
  void report_corruption(const std::string& file_path);
  // Body of the repair threads: hands whatever is queued to repair.
  void _process_repair_queue();

  // --- Consumers and the registry ----------------------------------------

  // The registry: managers by real path of their data directory, held
  // weakly, so that one nobody holds leaves by itself.
  static std::mutex& _class_lock();
  static std::unordered_map<std::string, std::weak_ptr<SyncManager>>& _instances();
  // Takes the manager of `data_dir` out of the registry.
  static void _evict(const std::string& data_dir);
  // "Save consumer count to disk." A failure is a warning.
  void _persist_consumer_count();
  // "Internal start used by the consumer-counted lifecycle." Poll thread,
  // then the era monitor, built once per start.
  void _start_internal();
  // The era callbacks' "kill" and "restart", with the era now in force.
  void _kill_fn();
  void _restart_fn();

  // --- Threads and poll loop ----------------------------------------------

  // "Start only the manifest-version polling thread."
  void _start_sync_thread();
  // "Internal stop implementation. Blocks until in-progress sync/transition completes."
  void _stop_internal();
  // "Background sync polling loop."
  void _poll_loop();
  // "Single poll cycle: check version, sync if needed, process repairs."
  void _poll_once();

  // --- Cross-process coordination -----------------------------------------

  // "Acquire cross-process file lock for sync serialization." Blocks; the
  // in-process lock stays held until _release_flock.
  void _acquire_flock();
  // "Release cross-process file lock."
  void _release_flock();
  // "Notify all registered era callbacks."
  void _notify_era_callbacks(const std::string& event_type, std::int64_t era_id);
  // "Get all found signal and strategy PnL file paths, ordered newest first."
  std::vector<std::string> _get_found_file_paths();

  // --- Era gates and transition ------------------------------------------

  // The active era's id and its normalised /era/current answer; EraError
  // unless the era is in state "active" (or "closing", when allowed).
  std::pair<std::int64_t, Json> _fetch_active_era_for_transition(bool allow_closing = false);
  // The era's normalised answer when `expected_era_id` is the active era;
  // EraError otherwise.
  Json _confirm_active_era(const Json& expected_era_id, bool allow_closing = false);
  // A newer active era's id, or absent while `expected_era_id` is still
  // active; EraError for an older one.
  std::optional<std::int64_t> _check_transition_superseded(const Json& expected_era_id,
                                                           bool allow_closing = false);

  // --- Old-era cleanup ----------------------------------------------------

  // What cleanup_old_eras(keep_current) would delete now, in the order it
  // deletes: whole trees, and without keep_current the two state files.
  struct CleanupTarget {
    std::string path;
    bool tree;
  };
  std::vector<CleanupTarget> _cleanup_targets(bool keep_current) const;
  // Runs cleanup_old_eras on a background thread unless one is running.
  void _schedule_cleanup_old_eras(bool keep_current = true);
  // Body of the cleanup thread: logs what it freed or why it failed.
  void _cleanup_old_eras_background(bool keep_current);

  // --- Progress -----------------------------------------------------------

  // Optional, beyond the component's own behaviour: `observer` is told how
  // each download batch of a pass advances (see download_progress.h). An
  // empty one removes it; unset, nothing changes.
  void set_progress_observer(ProgressObserver observer) {
    _progress_observer.store(observer ? std::make_shared<const ProgressObserver>(std::move(observer)) : nullptr);
  }
  SharedSlot<const ProgressObserver> _progress_observer;
  // Every body byte that reached a staging file, for the observer's display.
  std::atomic<std::int64_t> _bytes_arrived{0};

 private:
  struct PassKey {};

 public:
  SyncManager(PassKey, std::string data_dir, std::string server_url, TokenSource get_token,
              double poll_interval_s);

 private:
  void _load_consumer_count();
  void _load_manifest();
  void _load_vocabulary();

  mutable std::mutex token_mu_;
  TokenSource _get_token;
};

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SYNC_MANAGER_H_
