"""Installs the build, moves the tree, and uses it as a host outside does.

Takes ZENK_BUILD_DIR, ZENK_SOURCE_DIR, ZENK_CXX (the compiler) and ZENK_DLOPEN_HOST (the program of that name).
"""
import concurrent.futures
import os
import pathlib
import re
import socket
import subprocess
import tempfile
import unittest

BUILD = pathlib.Path(os.environ["ZENK_BUILD_DIR"])
SOURCE = pathlib.Path(os.environ["ZENK_SOURCE_DIR"])
HOST = SOURCE / "tests/packaging/host"
CXX = os.environ["ZENK_CXX"]
STRICT = ["-std=c++17", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror"]
FOREIGN = re.compile(r"libwebsockets|openssl|/ev\.h|/lws")
PORT_TAKEN = 3
DEADLINE_S = 120


def run(*command, **options):
    done = subprocess.run([str(part) for part in command], text=True, capture_output=True, timeout=DEADLINE_S, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command} gave {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def run_host(program, **options):
    for _ in range(3):  # another program may take the port meanwhile
        command = [program, str(free_port())]
        done = subprocess.run(command, text=True, capture_output=True, timeout=DEADLINE_S, **options)
        if done.returncode != PORT_TAKEN:
            break
    if done.returncode != 0:
        raise AssertionError(f"the host gave {done.returncode}\n{done.stdout}{done.stderr}")


class Installed(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        run("cmake", "--install", BUILD, "--prefix", cls.folder / "first")
        cls.prefix = cls.folder / "moved"
        (cls.folder / "first").rename(cls.prefix)
        cls.include = cls.prefix / "include/zenk_hbbtv_wsserver"
        cls.pc_dir = next(cls.prefix.rglob("*.pc")).parent
        cls.lib = cls.pc_dir.parent

    def test_headers_compile_alone_without_foreign_ones(self):
        def compile_alone(header):
            source = self.folder / (header.stem + "_alone.cpp")
            source.write_text(f'#include "{header.relative_to(self.include)}"\n')
            used = source.with_suffix(".d")
            run(CXX, *STRICT, "-fsyntax-only", "-MD", "-MF", used, "-I", self.include, source)
            self.assertNotRegex(used.read_text(), FOREIGN)

        headers = sorted(self.include.rglob("*.h"))
        self.assertIn(self.include / "wsserver/websocket_service.h", headers)
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            list(pool.map(compile_alone, headers))

    def build_with_cmake(self, source):
        build = self.folder / "build" / source.name
        run("cmake", "-S", source, "-B", build, "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={self.prefix}",
            f"-DCMAKE_CXX_COMPILER={CXX}")
        run("cmake", "--build", build)
        return build / "host"

    def test_cmake_package_builds_a_host_that_runs(self):
        run_host(self.build_with_cmake(HOST))

    def test_the_host_of_the_readme_builds_as_it_stands(self):
        readme = (SOURCE / "README.md").read_text()
        target, program = (re.search(f"```{language}\n(.*?)```", readme, re.DOTALL)[1] for language in ["cmake", "cpp"])
        source = self.folder / "readme-host"
        source.mkdir()
        (source / "main.cpp").write_text(program)
        (source / "CMakeLists.txt").write_text(
            f"cmake_minimum_required(VERSION 3.25)\nproject(host CXX)\nadd_executable(host main.cpp)\n{target}")
        self.build_with_cmake(source)

    def test_pkg_config_builds_a_host_that_runs(self):
        environment = os.environ | {"PKG_CONFIG_PATH": str(self.pc_dir)}
        flags = run("pkg-config", "--cflags", "--libs", "zenk_hbbtv_wsserver", env=environment).split()
        self.assertEqual(run("pkg-config", "--modversion", "zenk_hbbtv_wsserver", env=environment), "4.0.164\n")
        run(CXX, *STRICT, HOST / "main.cpp", "-o", self.folder / "pc-host", *flags)
        loader = os.environ | {"LD_LIBRARY_PATH": str(self.lib)}
        run_host(self.folder / "pc-host", env=loader)

    def test_loads_with_dlopen_and_stays(self):
        run(os.environ["ZENK_DLOPEN_HOST"], self.lib / "libzenk_hbbtv_wsserver.so.4")

    def test_man_pages_tell_every_option_and_command(self):
        for tool in ["zenk_logctl", "zenk_wcprobe"]:
            page = (self.prefix / f"share/man/man1/{tool}.1").read_text().replace("\\-", "-")
            told = run(self.prefix / "bin" / tool, "--help")
            for word in re.findall(r"--[a-z-]+", told) + re.findall(r"^  ([a-z]+)  ", told, re.MULTILINE):
                self.assertIn(word, page, tool)


if __name__ == "__main__":
    unittest.main()
