"""The library as others get it: the file that was built, and what an installation of it is good for.

Takes ZENK_BUILD_DIR, ZENK_SOURCE_DIR and ZENK_CXX, the compiler.
"""
import ctypes
import os
import pathlib
import re
import signal
import socket
import subprocess
import tempfile
import time
import unittest

BUILD = pathlib.Path(os.environ["ZENK_BUILD_DIR"])
SOURCE = pathlib.Path(os.environ["ZENK_SOURCE_DIR"])
CXX = os.environ["ZENK_CXX"]
LIBRARY = BUILD / "libzenk_hbbtv_wsserver.so.4.0.164"
STRIPPED_BYTES = 220_000  # receivers have little flash; some 15 % above what it took when the budget was set
STRICT = ["-std=c++17", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror"]


def run(*command, **options):
    return subprocess.check_output(command, text=True, timeout=120, **options)


class Package(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        run("cmake", "--install", BUILD, "--prefix", cls.folder / "first")
        cls.prefix = (cls.folder / "first").rename(cls.folder / "moved")
        cls.libraries = next(cls.prefix.rglob("*.so")).parent

    @unittest.skipIf("CMAKE_BUILD_TYPE:STRING=Debug" in (BUILD / "CMakeCache.txt").read_text() or "clang" in CXX,
                     "promised for the optimised build of the usual compiler")
    def test_shows_the_listed_symbols_and_its_build_record_in_little_room(self):
        shown = [line.split(maxsplit=2)[2] for line in run("nm", "-DC", "--defined-only", LIBRARY).splitlines()]
        listed = (SOURCE / "wsserver/exported_symbols.txt").read_text(encoding="ascii").splitlines()
        self.assertEqual(sorted(set(shown)), sorted(set(listed)))
        told = run("readelf", "-lSdW", LIBRARY)
        for sign in (r"soname: \[libzenk_hbbtv_wsserver.so.4\]", "BIND_NOW", "GNU_RELRO",
                     r" \.mmodule_version .* 0 +0 +1\n"):  # a section that is not loaded
            self.assertRegex(told, sign)
        stripped, record = self.folder / "stripped.so", self.folder / "record"
        run("strip", "--strip-unneeded", "-o", stripped, LIBRARY)
        self.assertLessEqual(stripped.stat().st_size, STRIPPED_BYTES)
        run("objcopy", "--dump-section", f".mmodule_version={record}", stripped, os.devnull)
        self.assertRegex(record.read_text(encoding="ascii"),
                         r"^LIBCODE:ZNKQ\nMAJORID:4\nMINORID:0\nBUILDNUM:164\n\$Change: [^\s$]+ \$\n$")

    def test_headers_compile_alone_without_foreign_ones(self):
        flags = run("pkg-config", "--cflags", "--libs", "zenk_hbbtv_wsserver",
                    env=os.environ | {"PKG_CONFIG_PATH": str(self.libraries / "pkgconfig")}).split()
        for header in (self.prefix / "include").rglob("*.h"):
            used = run(CXX, *STRICT, "-MD", "-MF", "-", "-x", "c++", "-include", header, os.devnull,
                       "-x", "none", *flags, "-shared", "-o", self.folder / "header.so")
            self.assertNotRegex(used, r"libwebsockets|openssl|/ev\.h|/lws")

    def test_the_host_of_the_readme_builds_as_it_stands_and_serves(self):
        readme = (SOURCE / "README.md").read_text()
        target, program = (re.search(f"```{language}\n(.*?)```", readme, re.DOTALL)[1] for language in ("cmake", "cpp"))
        with socket.socket() as probe:
            probe.bind(("", 0))
            port = probe.getsockname()[1]
        (self.folder / "main.cpp").write_text(program.replace("7681", str(port)))
        (self.folder / "CMakeLists.txt").write_text(
            f"cmake_minimum_required(VERSION 3.16)\nproject(host CXX)\nadd_executable(host main.cpp)\n{target}")
        run("cmake", "-S", self.folder, "-B", self.folder, f"-DCMAKE_PREFIX_PATH={self.prefix}",
            f"-DCMAKE_CXX_COMPILER={CXX}")
        run("cmake", "--build", self.folder)
        with subprocess.Popen([self.folder / "host"], stdout=subprocess.DEVNULL) as host:
            answer, deadline = b"", time.monotonic() + 30
            while not answer and time.monotonic() < deadline:
                with socket.socket() as client:
                    if client.connect_ex(("127.0.0.1", port)) == 0:
                        client.sendall(b"GET / HTTP/1.1\r\n\r\n")
                        answer = client.recv(100)
            host.send_signal(signal.SIGINT)
            self.assertEqual(host.wait(30), 0)
        self.assertIn(b"HTTP/1.1 ", answer)

    def test_loads_by_name_and_stays_with_what_it_knows(self):
        path = str(self.libraries / "libzenk_hbbtv_wsserver.so.4")
        library = ctypes.CDLL(path)
        library.insert_modules_list(b"HOST", 1)
        ctypes.CDLL(None).dlclose(ctypes.c_void_p(library._handle))  # threads of the library may run still
        self.assertEqual(ctypes.CDLL(path, os.RTLD_NOW | os.RTLD_NOLOAD).zenk_log_getLevel(b"HOST"), 2)
