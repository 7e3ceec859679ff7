"""A stand-in for the host library: the sibling modules that quillmarsh_sync
imports by name, made here and entered in sys.modules, each recording its
calls so that tests can see them."""

import sys
import types


class AuthError(Exception):
    pass


class LibraryUpdateRequired(Exception):
    pass


class SearchTracker:
    def __init__(self, data_dir, **keywords):
        search_tracking.calls.append(("open", data_dir, keywords))

    def handle_era_transition(self, *, new_era_id, previous_era_id):
        search_tracking.calls.append(("handle_era_transition", new_era_id, previous_era_id))

    def close(self):
        search_tracking.calls.append(("close",))


def validate_bearer_transport_url(url):
    # The tests use this host's check only on the served https URL and on a
    # plain http one.
    _transport_security.calls.append(url)
    if not url.startswith("https://"):
        raise ValueError(f"Refusing to send a bearer token over {url!r}")


def check_update(current_version):
    deployment.calls.append(("check_update", current_version))
    if deployment.check_update_failure is not None:
        raise deployment.check_update_failure


def _compare_versions(a, b):
    left, right = [int(p) for p in a.split(".")], [int(p) for p in b.split(".")]
    return (left > right) - (left < right)


def _module(name, **attributes):
    module = types.ModuleType(f"{__name__}.{name}")
    module.__dict__.update(attributes)
    sys.modules[module.__name__] = module
    return module


_transport_security = _module("_transport_security", validate_bearer_transport_url=validate_bearer_transport_url)
auth = _module("auth", AuthError=AuthError, notify_era_change=lambda new_era_id: auth.calls.append(new_era_id))
deployment = _module("deployment", LibraryUpdateRequired=LibraryUpdateRequired, _CURRENT_VERSION="0.0.3",
                     check_update=check_update, _compare_versions=_compare_versions)
identity = _module("identity", resolve_identity_for_data_dir=lambda data_dir: identity.calls.append(data_dir)
                   or types.SimpleNamespace(data_dir=data_dir))
search_tracking = _module("search_tracking", SearchTracker=SearchTracker)
agent_onboarding = _module("agent_onboarding", update_nudge=lambda event, *, new_era_id, previous_era_id:
                           agent_onboarding.calls.append((event, new_era_id, previous_era_id)))
MODULES = (_transport_security, auth, deployment, identity, search_tracking, agent_onboarding)


def reset():
    """Puts every module back in its first state; check_update_failure is
    what check_update raises."""
    for module in MODULES:
        module.calls = []
    deployment.check_update_failure = None


reset()
