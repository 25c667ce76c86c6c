"""The page: what its server refuses, how a companion finds the host, and the page itself in a browser."""
import contextlib
import http.client
import re
import shutil
import socket
import tempfile
import unittest
import urllib.request
import xml.etree.ElementTree

from host import BUILD, PATIENCE, Host, Program, enter_own_network, free_port

DIAL = "urn:dial-multiscreen-org:service:dial:1"
CHROMIUM_FLAGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-dev-shm-usage",
    "--disable-background-networking", "--disable-component-update", "--disable-sync", "--enable-logging=stderr"]


def open_url(url):
    """No proxy of the environment may come between."""
    return urllib.request.build_opener(urllib.request.ProxyHandler({})).open(url, timeout=PATIENCE)


class PageServer(unittest.TestCase):
    def ask(self, port, method, path, headers, body=None):
        with contextlib.closing(http.client.HTTPConnection("127.0.0.1", port, timeout=PATIENCE)) as connection:
            connection.request(method, path, body, headers)
            return connection.getresponse().status

    def test_answers_its_own_page_and_refuses_what_is_not_meant(self):
        port = free_port()
        own = {"Origin": f"http://127.0.0.1:{port}"}
        foreign = {"Host": f"tv.example:{port}", "Origin": f"http://tv.example:{port}"}  # a name that leads here
        with Host("--page-port", port), contextlib.ExitStack() as silent:
            # More silent connections than it has threads hold it up for a moment only.
            for _ in range(20):
                silent.enter_context(socket.create_connection(("127.0.0.1", port))).send(b"GET / HTTP/1.1\r\n")
            for status, *request in [
                    (200, "GET", "/", {}), (200, "POST", "/command", own, b"\xff\xfe{\x00"), (403, "GET", "/", foreign),
                    (403, "POST", "/command", foreign, b"help"), (403, "POST", "/command", {}, b"help"),
                    (403, "POST", "/command", {"Origin": "http://127.0.0.1:1"}, b"help"),
                    (404, "GET", "/../../../etc/passwd", {}), (405, "POST", "/", own, b"x"),
                    (413, "POST", "/command", own, iter([b"x" * 65537])),
                    (415, "POST", "/command", {**own, "Content-Type": "multipart/form-data; boundary=x"}, b"--x--")]:
                with self.subTest(request=str(request)[:90]):
                    self.assertEqual(self.ask(port, *request), status)

    def test_a_taken_port_is_told_before_anything_is_served(self):
        page_port = free_port()
        with Host("--page-port", page_port) as first:
            for name, option, port in [("TCP", "--port", first.port), ("UDP", "--wc-port", first.wc_port),
                                       ("TCP", "--page-port", page_port)]:
                ports = {each: free_port() for each in ("--port", "--wc-port", "--page-port")} | {option: port}
                with self.subTest(option), Program(BUILD / "zenk_receiver", *sum(ports.items(), ())) as second:
                    self.assertRegex(second.rest(), f"^[^\n]*{name} port {port}: [^\n]*$")
                    self.assertEqual(second.wait(PATIENCE), 1)


# What discovery sends goes nowhere else.
@unittest.skipUnless(enter_own_network(), "this machine lets us make no network of our own")
class Discovery(unittest.TestCase):
    def test_answers_who_looks_for_a_television_and_nobody_else(self):
        with Host("--page-port", free_port(), "--discovery") as host, socket.socket(type=socket.SOCK_DGRAM) as phone:
            phone.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton("127.0.0.1"))
            phone.settimeout(PATIENCE)
            search = ('M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nman: "ssdp:discover"\r\nMX: 1\r\n'
                      f"st:{DIAL}\r\n\r\n").encode()
            # Answers come in order, so one to any of the others would come before that to the last.
            for datagram in b"\xff" * 2000, search.replace(b"M-SEARCH", b"NOTIFY"), search:
                phone.sendto(datagram, ("239.255.255.250", 1900))
            answer = phone.recv(2048).decode()
            self.assertIn(f"\r\nST: {DIAL}\r\n", answer)
            phone.settimeout(0.2)
            self.assertRaises(TimeoutError, phone.recv, 2048)
            with open_url(re.search("LOCATION: (.*)\r", answer)[1]) as description:
                application = description.headers["Application-URL"] + "/HbbTV"
            with open_url(application) as resource:
                texts = {node.tag.rpartition("}")[2]: node.text
                         for node in xml.etree.ElementTree.fromstring(resource.read()).iter()}
            self.assertEqual(texts["X_HbbTV_App2AppURL"], host.urls["app2app-remote"])
            self.assertEqual(texts["X_HbbTV_InterDevSyncURL"], host.urls["css-cii"])


@unittest.skipUnless(shutil.which("chromium"), "there is no chromium")
class Page(unittest.TestCase):
    def test_talks_joins_and_follows_by_itself(self):
        # Chromium's last processes may still write into the profile while it is removed.
        with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as profile, Host("--page-port", free_port()) as host:
            with Program("chromium", *CHROMIUM_FLAGS, f"--user-data-dir={profile}", host.urls["page"] + "?auto=1") as browser:
                results = (re.search('CONSOLE.*"(passed|failed.*)"', line) for line in iter(browser.line, None))
                result = next(filter(None, results), None)
                self.assertEqual(result and result[1], "passed")
