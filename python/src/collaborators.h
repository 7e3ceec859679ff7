// The host's sibling modules, reached from the component through its
// collaborator slots.
#ifndef QUILLMARSH_SYNC_PYTHON_SRC_COLLABORATORS_H_
#define QUILLMARSH_SYNC_PYTHON_SRC_COLLABORATORS_H_

namespace quillmarsh::sync::python {

// Fills every slot with an adapter that imports its module
// (quillmarsh._transport_security, quillmarsh.auth, quillmarsh.deployment,
// quillmarsh.search_tracking, quillmarsh.identity,
// quillmarsh.agent_onboarding) at each use, so that a host without one
// fails there with ImportError, as an empty slot does, and one that gains
// it later is called. A process without the host package at all checks
// URLs with the component's own transport policy instead.
void install_collaborator_adapters();

}  // namespace quillmarsh::sync::python

#endif  // QUILLMARSH_SYNC_PYTHON_SRC_COLLABORATORS_H_
