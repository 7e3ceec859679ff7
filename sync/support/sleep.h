// The sleep behind every wait whose length the component fixes (retry
// back-offs). Tests replace it, so the suite checks the durations without
// sleeping through them.
#ifndef QUILLMARSH_SYNC_SUPPORT_SLEEP_H_
#define QUILLMARSH_SYNC_SUPPORT_SLEEP_H_

#include <functional>

namespace quillmarsh::sync {

using SleepFunction = std::function<void(double seconds)>;

// Sleeps `seconds` through the installed function.
void sync_sleep(double seconds);
// Installs `fn` (an empty function restores the real sleep) and returns the
// one it replaces.
SleepFunction replace_sleep(SleepFunction fn);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SUPPORT_SLEEP_H_
