// The end of a process whose managers still run.
//
// The component's threads are daemon threads: the process ends without
// waiting for them. Once the interpreter has finished, the C library's exit
// handlers would tear down what those threads still use (OpenSSL's cleanup
// frees its tables under a running TLS handshake), so a process that still
// has a manager ends right there, as with a daemon thread left running.
#ifndef QUILLMARSH_SYNC_PYTHON_SRC_PROCESS_EXIT_H_
#define QUILLMARSH_SYNC_PYTHON_SRC_PROCESS_EXIT_H_

#include <memory>

#include "sync/sync_manager.h"

namespace quillmarsh::sync::python {

// Registers the exit handler; called once, at import, after the libraries
// it must run before have registered theirs.
void install_process_exit_handler();

// Counts `manager` among those whose threads may outlive the interpreter.
void note_manager(const std::shared_ptr<SyncManager>& manager);

}  // namespace quillmarsh::sync::python

#endif  // QUILLMARSH_SYNC_PYTHON_SRC_PROCESS_EXIT_H_
