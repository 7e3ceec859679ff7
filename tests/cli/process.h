// Running qmsync as a process, as a user would: to its end with its output
// captured, or in the background with its first lines read as they come.
#ifndef QUILLMARSH_SYNC_TESTS_CLI_PROCESS_H_
#define QUILLMARSH_SYNC_TESTS_CLI_PROCESS_H_

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sync/support/posix_file.h"

extern char** environ;

namespace quillmarsh::sync::testing {

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

// This process's environment without QUILLMARSH_SYNC_* (a developer's
// settings must not leak in), plus `extra` ("NAME=value").
inline std::vector<std::string> child_environment(const std::vector<std::string>& extra) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::strncmp(*e, "QUILLMARSH_SYNC_", 16) != 0) env.emplace_back(*e);
  }
  env.insert(env.end(), extra.begin(), extra.end());
  return env;
}

inline std::vector<char*> c_strings(std::vector<std::string>& items) {
  std::vector<char*> out;
  for (std::string& item : items) out.push_back(item.data());
  out.push_back(nullptr);
  return out;
}

inline int exit_code_of(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Sends `signal_number` to `pid` and waits for it: the exit code, or 128 +
// the signal that ended it.
inline int signal_and_reap(pid_t pid, int signal_number) {
  ::kill(pid, signal_number);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return exit_code_of(status);
}

inline pid_t spawn(std::vector<std::string> argv, std::vector<std::string> env,
                   posix_spawn_file_actions_t* actions) {
  std::vector<char*> c_argv = c_strings(argv);
  std::vector<char*> c_env = c_strings(env);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, c_argv[0], actions, nullptr, c_argv.data(), c_env.data());
  if (rc != 0) throw std::runtime_error("posix_spawn " + argv[0] + ": " + std::strerror(rc));
  return pid;
}

// Runs `argv` to its end; stdout and stderr go through files in `scratch_dir`.
inline ProcessResult run_process(const std::vector<std::string>& argv, const std::string& scratch_dir,
                                 const std::vector<std::string>& extra_env = {}) {
  const std::string out_path = scratch_dir + "/stdout.txt";
  const std::string err_path = scratch_dir + "/stderr.txt";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid = -1;
  try {
    pid = spawn(argv, child_environment(extra_env), &actions);
  } catch (...) {
    posix_spawn_file_actions_destroy(&actions);
    throw;
  }
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) throw std::runtime_error("waitpid failed");
  }
  return {exit_code_of(status), read_file(out_path), read_file(err_path)};
}

// A process left running, its stdout on a pipe read line by line and its
// stderr in a file. Stopped with SIGTERM when it goes.
class BackgroundProcess {
 public:
  BackgroundProcess(const std::vector<std::string>& argv, const std::string& err_path,
                    const std::vector<std::string>& env = {}) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    try {
      pid_ = spawn(argv, child_environment(env), &actions);
    } catch (...) {
      posix_spawn_file_actions_destroy(&actions);
      ::close(fds[0]);
      ::close(fds[1]);
      throw;
    }
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    out_fd_ = fds[0];
  }
  ~BackgroundProcess() {
    if (pid_ > 0) stop();
    if (out_fd_ >= 0) ::close(out_fd_);
  }
  BackgroundProcess(const BackgroundProcess&) = delete;
  BackgroundProcess& operator=(const BackgroundProcess&) = delete;

  // The next line of stdout, without its newline; what there is at its end.
  std::string read_line() {
    std::string line;
    char c;
    while (::read(out_fd_, &c, 1) == 1 && c != '\n') line += c;
    return line;
  }

  // As read_line, but gives up after `timeout_s` seconds in all, returning
  // absent, so that a process that never says something fails a test
  // instead of hanging it.
  std::optional<std::string> read_line_for(double timeout_s) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout_s);
    std::string line;
    while (true) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return std::nullopt;
      pollfd pfd{out_fd_, POLLIN, 0};
      if (::poll(&pfd, 1, static_cast<int>(left.count())) <= 0) continue;
      char c;
      if (::read(out_fd_, &c, 1) != 1) return line.empty() ? std::nullopt : std::optional<std::string>(line);
      if (c == '\n') return line;
      line += c;
    }
  }

  // Sends SIGTERM and returns the exit code.
  int stop() { return stop_with(SIGTERM); }
  // Sends `signal_number`; the exit code, or 128 + the signal that ended it.
  int stop_with(int signal_number) {
    const int code = signal_and_reap(pid_, signal_number);
    pid_ = -1;
    return code;
  }

 private:
  pid_t pid_ = -1;
  int out_fd_ = -1;
};

}  // namespace quillmarsh::sync::testing

#endif  // QUILLMARSH_SYNC_TESTS_CLI_PROCESS_H_
