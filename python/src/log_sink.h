// Routes the component's log records into Python's logging.
#ifndef QUILLMARSH_SYNC_PYTHON_SRC_LOG_SINK_H_
#define QUILLMARSH_SYNC_PYTHON_SRC_LOG_SINK_H_

namespace quillmarsh::sync::python {

// From now on, each record of "quillmarsh.sync" goes to
// logging.getLogger("quillmarsh.sync") at its level with its text; a
// failure logged with it shows as the record's exception text. Needs the
// GIL. Records made while the interpreter exits are dropped.
void install_python_log_sink();

}  // namespace quillmarsh::sync::python

#endif  // QUILLMARSH_SYNC_PYTHON_SRC_LOG_SINK_H_
