// qmsync as a child process that may be killed at any moment: output to a
// log file, a wait with a deadline, SIGKILL.
#ifndef QUILLMARSH_SYNC_TESTS_CRASH_CHILD_H_
#define QUILLMARSH_SYNC_TESTS_CRASH_CHILD_H_

#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/cli/process.h"

namespace quillmarsh::sync::testing {

class Child {
 public:
  Child(const std::vector<std::string>& argv, const std::string& log_path, const std::vector<std::string>& env = {}) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    try {
      pid_ = spawn(argv, child_environment(env), &actions);
    } catch (...) {
      posix_spawn_file_actions_destroy(&actions);
      throw;
    }
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Child() {
    if (pid_ > 0) kill_now();
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // The exit code once it ends within `timeout_s`; absent while it runs.
  std::optional<int> wait_for(double timeout_s) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout_s);
    while (true) {
      int status = 0;
      const pid_t got = waitpid(pid_, &status, WNOHANG);
      if (got == pid_) {
        pid_ = -1;
        return exit_code_of(status);
      }
      if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
      std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
  }
  // SIGKILL and reap; the exit code it had if it ended first.
  int kill_now() {
    const int code = signal_and_reap(pid_, SIGKILL);
    pid_ = -1;
    return code;
  }

 private:
  pid_t pid_ = -1;
};

// Runs to its end, killed after `timeout_s`; the exit code (128 + 9 when killed).
inline int run_child(const std::vector<std::string>& argv, const std::string& log_path, double timeout_s,
                     const std::vector<std::string>& env = {}) {
  Child child(argv, log_path, env);
  if (const auto code = child.wait_for(timeout_s)) return *code;
  return child.kill_now();
}

}  // namespace quillmarsh::sync::testing

#endif  // QUILLMARSH_SYNC_TESTS_CRASH_CHILD_H_
