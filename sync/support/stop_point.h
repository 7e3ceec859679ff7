// Named places in a pass where a test build can stop the process dead, as a
// power cut or a SIGKILL would, to reach on purpose the narrow windows that
// random kills seldom hit (between writing manifest.json and the end of a
// sync, inside the commit of a transition). The crash trials name one place
// in QMSYNC_STOP_AT; the process kills itself with SIGKILL the first time it
// gets there. Outside a test build a stop point is nothing at all.
#ifndef QUILLMARSH_SYNC_SUPPORT_STOP_POINT_H_
#define QUILLMARSH_SYNC_SUPPORT_STOP_POINT_H_

#include <string_view>

namespace quillmarsh::sync {

#ifdef QMSYNC_STOP_POINTS
void stop_point(std::string_view name);
#else
inline void stop_point(std::string_view) {}
#endif

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SUPPORT_STOP_POINT_H_
