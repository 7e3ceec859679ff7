// The host modules qmsync stands in for when it runs on its own: a person at
// a terminal has no searches to track and no credentials to refresh.
#ifndef QUILLMARSH_SYNC_CLI_STANDALONE_MODULES_H_
#define QUILLMARSH_SYNC_CLI_STANDALONE_MODULES_H_

namespace quillmarsh::sync::cli {

// Fills the search tracking, auth and agent onboarding slots with modules
// that do nothing;
// identity stays empty and deployment keeps the library's default.
void install_standalone_modules();

}  // namespace quillmarsh::sync::cli

#endif  // QUILLMARSH_SYNC_CLI_STANDALONE_MODULES_H_
