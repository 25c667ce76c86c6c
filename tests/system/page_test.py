"""The page: what its server refuses, how a companion finds the host, and the page itself in a browser."""
import contextlib
import html
import http.client
import json
import pathlib
import shutil
import socket
import tempfile
import unittest
import urllib.request
import xml.etree.ElementTree

from host import BUILD, PATIENCE, Host, Program, enter_own_network, free_port, wait_until

GROUP = ("239.255.255.250", 1900)
DIAL = "urn:dial-multiscreen-org:service:dial:1"
CHROMIUM_FLAGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-dev-shm-usage",
    "--disable-background-networking", "--disable-component-update", "--disable-sync", "--remote-debugging-port=0"]
# What discovery sends goes nowhere else. Where this is not allowed, all but discovery is tested.
IS_ALONE = enter_own_network()


def open_url(url):
    """No proxy of the environment may come between."""
    return urllib.request.build_opener(urllib.request.ProxyHandler({})).open(url, timeout=PATIENCE)


def search(target=DIAL, man='"ssdp:discover"', first="M-SEARCH * HTTP/1.1"):
    return f"{first}\r\nHOST: 239.255.255.250:1900\r\nman: {man}\r\nMX: 1\r\nst:{target}\r\n\r\n".encode()


class PageServer(unittest.TestCase):
    def ask(self, port, method, path, headers, body):
        connection = http.client.HTTPConnection("127.0.0.1", port, timeout=PATIENCE)
        with contextlib.closing(connection):
            connection.request(method, path, body, headers)
            answer = connection.getresponse()
            return answer.status, answer.read().decode()

    def test_answers_its_own_page_and_refuses_what_is_not_meant(self):
        port = free_port()
        own = {"Origin": f"http://127.0.0.1:{port}"}
        by_name = {"Host": f"localhost:{port}", "Origin": f"http://localhost:{port}"}
        foreign = {"Host": f"tv.example:{port}", "Origin": f"http://tv.example:{port}"}  # a name that leads here
        too_long = b"x" * 65537
        cases = [
            (200, "GET", "/", {}, None), (200, "HEAD", "/", {}, None), (200, "GET", "/status", {}, None),
            (200, "GET", "/", {"Host": "[::1]:80"}, None), (403, "GET", "/", {"Host": "tv.example"}, None),
            (403, "GET", "/status", {"Host": "127.0.0.1.example"}, None), (403, "GET", "/", {"Host": ""}, None),
            (404, "GET", "/index.html", {}, None), (404, "GET", "/../../../etc/passwd", {}, None),
            (404, "POST", "/command%0a", own, b"x"), (404, "GET", "/dial/device.xml", {}, None),
            (405, "POST", "/", own, b"x"), (405, "PUT", "/command", own, b"x"), (405, "DELETE", "/status", {}, None),
            (400, "BREW", "/", {}, None), (414, "GET", "/" + "x" * 9000, {}, None),
            (200, "POST", "/command", own, b"help"), (200, "POST", "/command", by_name, b"\xff\xfe{\x00"),
            (200, "POST", "/command", own, too_long[1:]), (413, "POST", "/command", own, too_long),
            (413, "POST", "/command", own, iter([too_long])), (403, "POST", "/command", {}, b"help"),
            (403, "POST", "/command", {"Origin": "null"}, b"help"), (403, "POST", "/command", foreign, b"help"),
            (403, "POST", "/command", {"Origin": "http://127.0.0.1:1"}, b"help"),
            (415, "POST", "/command", {**own, "Content-Type": "multipart/form-data; boundary=x"}, b"--x--")]
        with Host("--page-port", port) as host:
            # More silent connections than it has threads hold it up for a moment only.
            with contextlib.ExitStack() as silent:
                for _ in range(20):
                    silent.enter_context(socket.create_connection(("127.0.0.1", port))).send(b"GET / HTTP/1.1\r\n")
                self.assertEqual(self.ask(port, "GET", "/", {}, None)[0], 200)
            for status, *request in cases:
                with self.subTest(request=str(request)[:90]):
                    self.assertEqual(self.ask(port, *request)[0], status)
            endpoints = json.loads(self.ask(port, "GET", "/endpoints", {}, None)[1])
            self.assertEqual(endpoints["cssCii"], host.urls["css-cii"])

    def test_a_taken_port_is_told_before_anything_is_served(self):
        for kind, option in [(socket.SOCK_STREAM, "--port"), (socket.SOCK_DGRAM, "--wc-port"),
                             (socket.SOCK_STREAM, "--page-port"), (socket.SOCK_DGRAM, None)][:4 if IS_ALONE else 3]:
            ports = {each: free_port() for each in ("--port", "--wc-port", "--page-port")}
            name, port = "UDP" if kind == socket.SOCK_DGRAM else "TCP", ports.get(option, GROUP[1])
            with self.subTest(option), socket.socket(type=kind) as holder:
                holder.bind(("", port))
                with Program(BUILD / "zenk_receiver", *sum(ports.items(), ()), *["--discovery"] * IS_ALONE) as host:
                    self.assertEqual(host.wait(), 1)
                    self.assertIsNone(host.line("app2app-local"))
                    self.assertIn(f"{name} port {port}: ", host.complaints())


@unittest.skipUnless(IS_ALONE, "this machine lets us make no network of our own")
class Discovery(unittest.TestCase):
    def test_answers_who_looks_for_a_television_and_nobody_else(self):
        own = socket.inet_aton("127.0.0.1")
        with socket.socket(type=socket.SOCK_DGRAM) as group, socket.socket(type=socket.SOCK_DGRAM) as phone:
            group.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            group.bind(GROUP)
            group.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, socket.inet_aton(GROUP[0]) + own)
            phone.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, own)
            phone.settimeout(PATIENCE)
            with Host("--page-port", free_port(), "--discovery") as host:
                # Answers come in order, so one to any of the others would come before the two of the last.
                sent = [search("ssdp:all"), search(man="ssdp:discover"), search(first="NOTIFY * HTTP/1.1"), b"\r\n",
                        b"\xff" * 2000, search()[:60], search(), search()]
                for datagram in sent:
                    phone.sendto(datagram, GROUP)
                answers = [phone.recv(2048).decode().split("\r\n") for _ in range(2)]
                phone.settimeout(0.2)
                self.assertRaises(TimeoutError, phone.recv, 2048)
                for answer in answers:
                    self.assertEqual(answer[0], "HTTP/1.1 200 OK")
                    self.assertIn("ST: " + DIAL, answer)
                location = next(line for line in answers[0] if line.startswith("LOCATION: "))[10:]
                with open_url(location) as description:
                    xml.etree.ElementTree.fromstring(description.read())
                    application = description.headers["Application-URL"] + "/HbbTV"
                with open_url(application) as resource:
                    texts = {node.tag.rpartition("}")[2]: node.text
                             for node in xml.etree.ElementTree.fromstring(resource.read()).iter()}
                self.assertEqual(texts["X_HbbTV_App2AppURL"], host.urls["app2app-remote"])
                self.assertEqual(texts["X_HbbTV_InterDevSyncURL"], host.urls["css-cii"])
                self.assertTrue(texts["X_HbbTV_UserAgent"].startswith("HbbTV/"))
            group.setblocking(False)
            for datagram in sent:  # nothing of the host's is among them
                self.assertEqual(group.recv(2048), datagram)
            self.assertRaises(BlockingIOError, group.recv, 2048)


@unittest.skipUnless(shutil.which("chromium"), "there is no chromium")
class Page(unittest.TestCase):
    def title(self, profile, url):
        """The page's result, once it has one. Chromium writes its port into its profile when it listens."""
        with contextlib.suppress(OSError, IndexError):
            port = (profile / "DevToolsActivePort").read_text().split()[0]
            with open_url(f"http://127.0.0.1:{port}/json") as answer:
                titles = [html.unescape(page["title"]) for page in json.load(answer) if page["url"].startswith(url)]
            return next((title for title in titles if title.startswith(("passed", "failed"))), None)

    def test_talks_joins_and_follows_by_itself(self):
        # Chromium's last processes may still write into the profile while it is removed.
        with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as folder, Host("--page-port", free_port()) as host:
            profile, url = pathlib.Path(folder) / "profile", host.urls["page"] + "?auto=1"
            with Program("chromium", *CHROMIUM_FLAGS, f"--user-data-dir={profile}", url):
                self.assertEqual(wait_until(lambda: self.title(profile, url), 6 * PATIENCE), "passed")
