#!/usr/bin/python3
"""Lets the demo page run by itself in headless Chromium: demo_test.py RECEIVER PAGE. Exits with 77 to skip."""

import html
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.parse
import urllib.request

SKIPPED = 77
PATIENCE_S = 90
PARAMETERS = {"app2app-local": "local", "app2app-remote": "remote", "css-cii": "cii", "css-ts": "ts"}
CHROMIUM_FLAGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-dev-shm-usage",
    "--disable-background-networking", "--disable-component-update", "--disable-sync", "--remote-debugging-port=0",
]


def free_port(kind):
    with socket.socket(socket.AF_INET, kind) as probe:
        probe.bind(("", 0))
        return probe.getsockname()[1]


def start(arguments, **options):
    """In a session of its own, so that the program's children can be ended with it."""
    return subprocess.Popen(arguments, stdin=subprocess.DEVNULL, start_new_session=True, **options)


def end(process):
    os.killpg(process.pid, signal.SIGKILL)
    process.wait()


def start_receiver(path, output):
    ports = ["--port", str(free_port(socket.SOCK_STREAM)), "--wc-port", str(free_port(socket.SOCK_DGRAM))]
    return start([path, *ports], stdout=output)


def poll(what, attempt):
    """Calls `attempt` until it returns something."""
    deadline = time.monotonic() + PATIENCE_S
    while time.monotonic() < deadline:
        result = attempt()
        if result:
            return result
        time.sleep(0.05)
    sys.exit(f"demo_test: no {what} in {PATIENCE_S} s")


def page_parameters(output, receiver):
    """The receiver's URLs once it is ready."""
    if receiver.poll() is not None:
        sys.exit(f"demo_test: the receiver ended with {receiver.returncode}")
    lines = re.sub(r"\x1b\[[0-9;]*m", "", output.read_text()).splitlines()
    if "ready" not in lines:
        return None
    words = [line.split() for line in lines]
    return {PARAMETERS[word[0]]: word[1] for word in words if len(word) == 2 and word[0] in PARAMETERS}


def debugging_port(profile):
    """Chromium writes it into its profile when it listens."""
    try:
        return (profile / "DevToolsActivePort").read_text().split()[0]
    except (FileNotFoundError, IndexError):
        return None


def result_of_page(port, page):
    """The page's title, which is its result when it has finished."""
    # No proxy of the environment may come between.
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    try:
        with opener.open(f"http://127.0.0.1:{port}/json", timeout=10) as answer:
            titles = [html.unescape(target["title"]) for target in json.load(answer) if target["url"].startswith(page)]
    except (urllib.error.URLError, TimeoutError):
        return None
    return next((title for title in titles if title.startswith(("passed", "failed"))), None)


def run_page(chromium, url, directory):
    profile = directory / "profile"
    with open(directory / "chromium.log", "w") as log:
        browser = start([chromium, *CHROMIUM_FLAGS, f"--user-data-dir={profile}", url], stdout=log, stderr=log)
    try:
        port = poll("browser", lambda: debugging_port(profile))
        return poll("result in the page", lambda: result_of_page(port, url.split("?")[0]))
    except SystemExit:
        print((directory / "chromium.log").read_text())
        raise
    finally:
        end(browser)


def test(chromium, receiver_path, page, directory):
    output = directory / "receiver.log"
    with open(output, "w") as sink:
        receiver = start_receiver(receiver_path, sink)
    try:
        parameters = poll("receiver", lambda: page_parameters(output, receiver))
        query = urllib.parse.urlencode({**parameters, "auto": "1"})
        return run_page(chromium, f"{page.as_uri()}?{query}", directory)
    finally:
        end(receiver)


def main():
    chromium = shutil.which("chromium")
    if not chromium:
        print("demo_test: skipped, there is no chromium")
        return SKIPPED
    # Chromium's last processes may still write into the profile while it is removed.
    with tempfile.TemporaryDirectory(prefix="demo_test.", ignore_cleanup_errors=True) as directory:
        result = test(chromium, sys.argv[1], pathlib.Path(sys.argv[2]).resolve(), pathlib.Path(directory))
    print(f"demo_test: the page says \"{result}\"")
    return 0 if result == "passed" else 1


if __name__ == "__main__":
    sys.exit(main())
