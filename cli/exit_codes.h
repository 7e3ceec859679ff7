// How qmsync ends: one exit code per kind of failure, and the last line on
// stderr, "error: <TypeName>: <message>".
#ifndef QUILLMARSH_SYNC_CLI_EXIT_CODES_H_
#define QUILLMARSH_SYNC_CLI_EXIT_CODES_H_

#include <exception>
#include <string>

namespace quillmarsh::sync::cli {

inline constexpr int kExitOk = 0;
inline constexpr int kExitInvalid = 1;  // verify found the data invalid
inline constexpr int kExitUsage = 2;
inline constexpr int kExitSyncError = 3;  // a SyncError not listed below
inline constexpr int kExitIntegrity = 4;
inline constexpr int kExitEra = 5;
inline constexpr int kExitManifest = 6;
inline constexpr int kExitDiskSpace = 7;
inline constexpr int kExitAuth = 8;
inline constexpr int kExitConnection = 9;  // ConnectionError, TimeoutError, or no connection at all
inline constexpr int kExitState = 10;
inline constexpr int kExitUpdateRequired = 11;
inline constexpr int kExitOther = 12;

int exit_code_for(const std::exception& failure);

// "error: <TypeName>: <message>" on one line.
std::string error_line(const std::exception& failure);

}  // namespace quillmarsh::sync::cli

#endif  // QUILLMARSH_SYNC_CLI_EXIT_CODES_H_
