"""Failures raised by quillmarsh_sync.

Two trees: SyncError and its children describe what went wrong with a sync;
StateError is misuse of the manager's state and is deliberately no SyncError.
Everything else is a built-in class (ConnectionError, TimeoutError, OSError,
FileNotFoundError, ValueError, TypeError, RuntimeError, ImportError), or the
host's AuthError and LibraryUpdateRequired.
"""

import importlib


class SyncError(Exception):
    """Base sync error."""


class DiskSpaceError(SyncError):
    """Raised when insufficient disk space for sync."""


class IntegrityError(SyncError):
    """Raised when file checksum verification fails after retries."""


class EraError(SyncError):
    """Raised on era-related errors."""


class ManifestError(SyncError):
    """Raised on manifest parsing or validation errors."""


class StateError(Exception):
    """Raised when operation is invalid for current state."""


class AuthError(Exception):
    """The server refused the bearer token (stands in for quillmarsh.auth.AuthError)."""


class LibraryUpdateRequired(Exception):
    """The era needs a newer library (stands in for quillmarsh.deployment.LibraryUpdateRequired)."""


_HOST_MODULES = {
    "AuthError": "quillmarsh.auth",
    "LibraryUpdateRequired": "quillmarsh.deployment",
}
_OWN = {"AuthError": AuthError, "LibraryUpdateRequired": LibraryUpdateRequired}


def host_failure_class(name):
    """The host's class `name` when its module loads, else the binding's own."""
    try:
        cls = getattr(importlib.import_module(_HOST_MODULES[name]), name)
    except Exception:  # missing, or failing to load: the host has no such class
        return _OWN[name]
    return cls if isinstance(cls, type) and issubclass(cls, BaseException) else _OWN[name]
