// Failure types of the sync component.
//
// Two trees share one root: SyncError and its children describe what went
// wrong with a sync, StateError is misuse of the manager's state. The general
// kinds (ConnectionError, OSError, ValueError, ...) and the host library's
// own failures (AuthError, LibraryUpdateRequired) are distinct types beside
// them, so a handler can tell each apart; none of them is a SyncError.
#ifndef QUILLMARSH_SYNC_ERRORS_H_
#define QUILLMARSH_SYNC_ERRORS_H_

#include <exception>
#include <stdexcept>
#include <string>

namespace quillmarsh::sync {

// Root of every failure the component raises. Carries a message and, where
// one failure was raised because of another, that other one as its cause.
class Error : public std::runtime_error {
 public:
  explicit Error(const std::string& message, std::exception_ptr cause = nullptr)
      : std::runtime_error(message), cause_(std::move(cause)) {}

  const std::exception_ptr& cause() const noexcept { return cause_; }
  // The type's name as logs and bindings show it, e.g. "IntegrityError".
  virtual const char* type_name() const noexcept { return "Error"; }

 private:
  std::exception_ptr cause_;
};

#define QUILLMARSH_SYNC_DEFINE_ERROR(Name, Base)                          \
  class Name : public Base {                                             \
   public:                                                               \
    using Base::Base;                                                    \
    const char* type_name() const noexcept override { return #Name; }   \
  }

// "Base sync error."
QUILLMARSH_SYNC_DEFINE_ERROR(SyncError, Error);
// "Raised when insufficient disk space for sync."
QUILLMARSH_SYNC_DEFINE_ERROR(DiskSpaceError, SyncError);
// "Raised when file checksum verification fails after retries."
QUILLMARSH_SYNC_DEFINE_ERROR(IntegrityError, SyncError);
// "Raised on era-related errors."
QUILLMARSH_SYNC_DEFINE_ERROR(EraError, SyncError);
// "Raised on manifest parsing or validation errors."
QUILLMARSH_SYNC_DEFINE_ERROR(ManifestError, SyncError);
// "Raised when operation is invalid for current state." Deliberately not a
// SyncError: a handler for SyncError does not catch it.
QUILLMARSH_SYNC_DEFINE_ERROR(StateError, Error);

// General kinds.
QUILLMARSH_SYNC_DEFINE_ERROR(ConnectionError, Error);
QUILLMARSH_SYNC_DEFINE_ERROR(TimeoutError, Error);
QUILLMARSH_SYNC_DEFINE_ERROR(ValueError, Error);
QUILLMARSH_SYNC_DEFINE_ERROR(TypeError, Error);
QUILLMARSH_SYNC_DEFINE_ERROR(RuntimeError, Error);
// The worker pool's own timeout, distinct from a network TimeoutError.
QUILLMARSH_SYNC_DEFINE_ERROR(FuturesTimeoutError, Error);
// A collaborator module that the host has not provided.
QUILLMARSH_SYNC_DEFINE_ERROR(ImportError, Error);

// The host library's failures, which the component raises or passes along.
QUILLMARSH_SYNC_DEFINE_ERROR(AuthError, Error);
QUILLMARSH_SYNC_DEFINE_ERROR(LibraryUpdateRequired, Error);

#undef QUILLMARSH_SYNC_DEFINE_ERROR

// A failure of a file system call. Keeps the errno value and the path.
class OSError : public Error {
 public:
  OSError(int error_number, const std::string& message, std::exception_ptr cause = nullptr)
      : Error(message, std::move(cause)), errno_(error_number) {}
  int error_number() const noexcept { return errno_; }
  const char* type_name() const noexcept override { return "OSError"; }

 private:
  int errno_;
};

class FileNotFoundError : public OSError {
 public:
  using OSError::OSError;
  const char* type_name() const noexcept override { return "FileNotFoundError"; }
};

// "Type: message" for one failure of any kind.
std::string describe_failure(const std::exception& e);
// The failure and the chain of its causes, one per line, outermost first.
std::string describe_failure_chain(const std::exception_ptr& failure);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_ERRORS_H_
