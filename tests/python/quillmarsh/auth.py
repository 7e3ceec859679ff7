class AuthError(Exception):
    pass


calls = []


def reset():
    calls.clear()


def notify_era_change(new_era_id):
    calls.append(new_era_id)
