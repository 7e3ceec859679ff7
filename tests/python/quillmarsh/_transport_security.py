from urllib.parse import urlsplit

calls = []


def reset():
    calls.clear()


def validate_bearer_transport_url(url):
    calls.append(url)
    parts = urlsplit(url)
    if parts.scheme == "https" and parts.hostname:
        return
    if parts.scheme == "http" and parts.hostname in ("localhost", "127.0.0.1", "::1"):
        return
    raise ValueError(f"Refusing to send a bearer token over {url!r}")
