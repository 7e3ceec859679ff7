calls = []


def reset():
    calls.clear()


def update_nudge(event, *, new_era_id, previous_era_id):
    calls.append((event, new_era_id, previous_era_id))
