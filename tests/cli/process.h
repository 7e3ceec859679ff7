// Child processes of the tests (qmsync run as a user runs it, the crash
// harness's victims): run to their end with their output captured, left
// running with their stdout read line by line as it is written, or killed
// at any moment.
// Every wait has a deadline, so that a child that hangs fails its test
// instead of holding it until ctest gives up on the whole executable.
#ifndef QUILLMARSH_SYNC_TESTS_CLI_PROCESS_H_
#define QUILLMARSH_SYNC_TESTS_CLI_PROCESS_H_

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "sync/support/posix_file.h"

extern char** environ;

namespace quillmarsh::sync::testing {

// Long enough for any one qmsync run the tests make, short of ctest's limit.
inline constexpr double kProcessTimeoutS = 60;

struct ProcessResult {
  int exit_code = -1;
  std::string out;
  std::string err;

  // The last non-empty line on stderr, where qmsync names its failure.
  std::string last_err_line() const {
    std::string_view text = err;
    while (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    const std::size_t newline = text.rfind('\n');
    return std::string(newline == std::string_view::npos ? text : text.substr(newline + 1));
  }
};

inline int exit_code_of(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

// One child, stdin from /dev/null. Killed with SIGKILL if it still runs when
// this goes.
class Child {
 public:
  // stdout goes to `out_path`, stderr to `err_path`. The environment is
  // this process's without QUILLMARSH_SYNC_* (a developer's settings must not
  // leak in), plus `env` ("NAME=value").
  Child(std::vector<std::string> argv, const std::string& out_path, const std::string& err_path,
        std::vector<std::string> env = {})
      : out_path_(out_path) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    const int flags = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(), flags, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err_path.c_str(), flags, 0644);
    std::vector<char*> c_argv, c_env;
    for (char** e = environ; *e != nullptr; ++e) {
      if (std::strncmp(*e, "QUILLMARSH_SYNC_", 16) != 0) c_env.push_back(*e);
    }
    for (std::string& item : argv) c_argv.push_back(item.data());
    for (std::string& item : env) c_env.push_back(item.data());
    c_argv.push_back(nullptr);
    c_env.push_back(nullptr);
    const int rc = posix_spawn(&pid_, c_argv[0], &actions, nullptr, c_argv.data(), c_env.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
      pid_ = -1;
      throw std::runtime_error("posix_spawn " + argv[0] + ": " + std::strerror(rc));
    }
  }
  ~Child() {
    if (pid_ > 0) kill_now();
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // The next line of stdout, without its newline; absent when none comes
  // within `timeout_s`.
  std::optional<std::string> read_line_for(double timeout_s) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout_s);
    do {
      const std::string text = read_file(out_path_);
      if (const std::size_t end = text.find('\n', read_from_); end != std::string::npos) {
        const std::size_t start = std::exchange(read_from_, end + 1);
        return text.substr(start, end - start);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    } while (std::chrono::steady_clock::now() < deadline);
    return std::nullopt;
  }

  // The exit code (128 + the signal that ended it) once it ends within
  // `timeout_s`; absent while it runs.
  std::optional<int> wait_for(double timeout_s) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout_s);
    while (true) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return exit_code_of(status);
      }
      if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
      std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
  }

  // Sends `signal_number` and waits up to `timeout_s` for the end; a child
  // that outlives that is killed, and its code is then 128 + SIGKILL.
  int stop_with(int signal_number, double timeout_s = 30) {
    ::kill(pid_, signal_number);
    const std::optional<int> code = wait_for(timeout_s);
    return code ? *code : kill_now();
  }
  int kill_now() {
    ::kill(pid_, SIGKILL);
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return exit_code_of(status);
  }

 private:
  pid_t pid_ = -1;
  std::string out_path_;
  std::size_t read_from_ = 0;
};

// Runs `argv` to its end with stdout and stderr captured in `log_prefix`.out
// and .err. One that runs past `timeout_s` is killed and says so on stderr.
inline ProcessResult run_process(const std::vector<std::string>& argv, const std::string& log_prefix,
                                 const std::vector<std::string>& extra_env = {}, double timeout_s = kProcessTimeoutS) {
  Child child(argv, log_prefix + ".out", log_prefix + ".err", extra_env);
  const std::optional<int> code = child.wait_for(timeout_s);
  ProcessResult result{code ? *code : child.kill_now(), read_file(log_prefix + ".out"), read_file(log_prefix + ".err")};
  if (!code) result.err += "\n[killed: still running after " + std::to_string(timeout_s) + " s]\n";
  return result;
}

}  // namespace quillmarsh::sync::testing

#endif  // QUILLMARSH_SYNC_TESTS_CLI_PROCESS_H_
