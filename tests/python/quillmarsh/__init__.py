"""A stand-in for the host library: the sibling modules that quillmarsh_sync
calls, each recording its calls so that tests can see them."""

import importlib

MODULES = ("_transport_security", "auth", "deployment", "search_tracking", "identity", "agent_onboarding")


def reset():
    """Puts every module back in its first state."""
    for name in MODULES:
        importlib.import_module(f"{__name__}.{name}").reset()
