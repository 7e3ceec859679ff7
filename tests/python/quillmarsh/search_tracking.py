calls = []


def reset():
    calls.clear()


class SearchTracker:
    def __init__(self, data_dir, **keywords):
        calls.append(("open", data_dir, keywords))

    def handle_era_transition(self, *, new_era_id, previous_era_id):
        calls.append(("handle_era_transition", new_era_id, previous_era_id))

    def close(self):
        calls.append(("close",))
