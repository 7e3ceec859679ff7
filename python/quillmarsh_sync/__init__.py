"""quillmarsh sync: keeps a local data directory identical to the data set
that a server publishes for the current era.

    from quillmarsh_sync import SyncManager
    manager = SyncManager.get_or_create(data_dir, server_url, get_token)
    result = manager.sync()

Importing this package routes the component's log records to the logger
"quillmarsh.sync" and reaches the host's sibling modules (quillmarsh.auth,
quillmarsh.deployment, ...) by importing them when they are needed.
Without the host package (no `quillmarsh` to import), a manager still
builds: a bearer token goes over https, or http to a loopback host only.
AuthError and LibraryUpdateRequired are the host's classes when its modules
load, else stand-ins of this package.
"""

from ._errors import (
    DiskSpaceError,
    EraError,
    IntegrityError,
    ManifestError,
    StateError,
    SyncError,
    host_failure_class as _host_failure_class,
)
from ._records import DownloadProgress, SyncResult, VerifyResult
from ._core import Manifest, SyncManager, __version__, set_extra_ca_file

__all__ = [
    "AuthError",
    "DiskSpaceError",
    "DownloadProgress",
    "EraError",
    "IntegrityError",
    "LibraryUpdateRequired",
    "Manifest",
    "ManifestError",
    "StateError",
    "SyncError",
    "SyncManager",
    "SyncResult",
    "VerifyResult",
    "set_extra_ca_file",
]


def __getattr__(name):
    # Looked up at each use: the host's modules may load after this package.
    if name in ("AuthError", "LibraryUpdateRequired"):
        return _host_failure_class(name)
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
