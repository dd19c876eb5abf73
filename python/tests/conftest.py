"""Fixtures: KVANE_LIBRARY names the library, KVANE_BINARY_DIR the build tree
with tools/. Without numpy the run exits with 77, which CTest counts as skipped."""

import importlib
import os
import pathlib
import subprocess
import sys

import pytest

PYTHON_DIR = pathlib.Path(__file__).resolve().parents[1]
SOURCE_DIR = PYTHON_DIR.parent
sys.path.insert(0, str(PYTHON_DIR))


def pytest_sessionstart(session):
    try:
        importlib.import_module("numpy")
    except ImportError:
        pytest.exit("numpy is not installed (Debian: python3-numpy); the binding's tests are skipped", returncode=77)


@pytest.fixture(scope="session")
def library():
    import kvane

    try:
        return kvane.load_library()
    except OSError as error:
        if os.environ.get("KVANE_LIBRARY"):
            raise
        pytest.skip(f"no libkvane.so: {error}")


@pytest.fixture
def workspace(library):
    import kvane

    with kvane.Workspace() as ws:
        yield ws


@pytest.fixture(scope="session")
def tool():
    binary_dir = pathlib.Path(os.environ.get("KVANE_BINARY_DIR", SOURCE_DIR / "build"))

    def find(name):
        path = binary_dir / "tools" / name
        if not path.is_file():
            pytest.skip(f"{path} is not built")
        return path

    return find


@pytest.fixture(scope="session")
def simulated(tool):
    """simulated(path, *options): writes a recording of simulated pings with
    kvane-simulate (options as on its command line) and returns path."""

    def make(path, *options):
        subprocess.run([str(tool("kvane-simulate")), "--out", str(path), *map(str, options)], check=True,
                       capture_output=True)
        return path

    return make


# Files the tests keep for people to look at (screenshots), listed at the end.
ARTEFACTS = []


def pytest_terminal_summary(terminalreporter):
    for path in ARTEFACTS:
        terminalreporter.write_line(f"test artefact: {path}")
