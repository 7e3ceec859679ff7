// How qmsync ends: one exit code per kind of failure, and the last line on
// stderr, "error: <TypeName>: <message>", with what to do next where that
// can be told.
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

// What a person can do about `failure`, in one sentence, or "" when qmsync
// cannot tell. `token_given`: whether --token or --token-file was used.
std::string next_step(const std::exception& failure, bool token_given);

// "error: <TypeName>: <message>" on one line, then " -- <next step>" when
// there is one.
std::string error_line(const std::exception& failure, const std::string& next = "");

// The failure's type name as error_line gives it.
std::string failure_type_name(const std::exception& failure);

}  // namespace quillmarsh::sync::cli

#endif  // QUILLMARSH_SYNC_CLI_EXIT_CODES_H_
