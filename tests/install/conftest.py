"""Installs the build in PLAX_BUILD with PLAX_CMAKE below temporary directories."""

import os
import subprocess
import sys

import pytest

BUILD, CMAKE = os.environ["PLAX_BUILD"], os.environ["PLAX_CMAKE"]
MANIFEST = os.path.join(BUILD, "install_manifest.txt")

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "end_to_end"))


def run_cmake(*words, root):
    subprocess.run([CMAKE, *words], env={**os.environ, "DESTDIR": str(root)}, umask=0,
                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=True)


@pytest.fixture(name="installed", scope="session")
def install_once(tmp_path_factory):
    """installed(prefix, component) installs a component to the prefix, and returns the root directory used."""
    roots = {}

    def installed(prefix, component="plax-tool"):
        if (prefix, component) not in roots:
            root = roots[prefix, component] = tmp_path_factory.mktemp("root")
            run_cmake("--install", BUILD, "--prefix", prefix, "--component", component, root=root)
        return roots[prefix, component]

    return installed


@pytest.fixture(name="own_manifest")
def keep_the_manifest():
    """Lets the test write the build directory's record of an installation, and restores an earlier one."""
    kept = None
    if os.path.exists(MANIFEST):
        with open(MANIFEST, "rb") as manifest:
            kept = manifest.read()
        os.unlink(MANIFEST)
    yield
    if kept is not None:
        with open(MANIFEST, "wb") as manifest:
            manifest.write(kept)
