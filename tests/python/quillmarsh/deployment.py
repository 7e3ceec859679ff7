class LibraryUpdateRequired(Exception):
    pass


_CURRENT_VERSION = "0.0.3"
calls = []
# What check_update raises or answers; tests set them.
check_update_failure = None
newer_version = None


def reset():
    global check_update_failure, newer_version
    calls.clear()
    check_update_failure = None
    newer_version = None


def check_update(current_version):
    calls.append(("check_update", current_version))
    if check_update_failure is not None:
        raise check_update_failure
    return newer_version


def _compare_versions(a, b):
    left, right = [int(p) for p in a.split(".")], [int(p) for p in b.split(".")]
    n = max(len(left), len(right))
    left += [0] * (n - len(left))
    right += [0] * (n - len(right))
    return (left > right) - (left < right)


class _Updated:
    success = True


def auto_update(min_ver):
    calls.append(("auto_update", min_ver))
    return _Updated()
