calls = []


def reset():
    calls.clear()


class Identity:
    def __init__(self, data_dir):
        self.data_dir = data_dir


def resolve_identity_for_data_dir(data_dir):
    calls.append(data_dir)
    return Identity(data_dir)
