"""The packages that cpack builds: their files and their metadata.

A restrictive umask must not change the modes of the packaged directories.
"""

import os
import re
import shutil
import subprocess
import sysconfig

import pytest
from conftest import BUILD
from files import STANDIN, TOOL, below
from binaries import is_sanitized

debian = pytest.mark.skipif(not shutil.which("dpkg"), reason="there is no dpkg")
rpm = pytest.mark.skipif(not shutil.which("rpmbuild"), reason="there is no rpmbuild")
pytestmark = [
    pytest.mark.skipif("PLAXD_STANDIN" not in os.environ, reason="the stand-in is not built"),
    pytest.mark.skipif(is_sanitized(os.environ["PLAX_TOOL"]), reason="depends on the libraries of the sanitizers too"),
]


def output(*command):
    return subprocess.run(command, capture_output=True, check=True, text=True,
                          env={**os.environ, "LC_ALL": "C.UTF-8"}).stdout


@pytest.fixture(name="packages", scope="module")
def build_packages(tmp_path_factory):
    directory = tmp_path_factory.mktemp("packages")
    subprocess.run([os.environ["PLAX_CPACK"], "--config", f"{BUILD}/CPackConfig.cmake", "-B", directory], umask=0o077,
                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=True)
    return directory


def package_file(packages, pattern):
    [path] = packages.glob(pattern)
    return str(path)


@debian
@rpm
def test_packages_are_these(packages):
    names = [re.sub(r"[0-9.]+-1([._])\w+\.", r"VERSION\1PROCESSOR.", path.name) for path in packages.iterdir()
             if path.is_file()]
    assert sorted(names) == ["plax-tool-VERSION.PROCESSOR.rpm", "plax-tool-standin-VERSION.PROCESSOR.rpm",
                             "plax-tool-standin_VERSION_PROCESSOR.deb", "plax-tool_VERSION_PROCESSOR.deb"]


def debian_listing(path):
    """Mode, owner and path of each file and directory; directories end with a slash."""
    rows = (line.split() for line in output("dpkg-deb", "--contents", path).splitlines())
    return {f"{row[0]} {row[1]} {row[5].removeprefix('.')}" for row in rows}


def owned(files):
    return {line.replace(" ", " root/root ") for line in files}


@debian
def test_files_of_the_tools_debian_package(packages):
    listing = debian_listing(package_file(packages, "plax-tool_*.deb"))
    assert {line for line in listing if not line.endswith("/")} == owned(below("/usr", TOOL) | {
        "-rw-r--r-- /usr/share/doc/plax-tool/changelog.Debian.gz",
        "-rw-r--r-- /usr/share/fish/vendor_completions.d/plax-tool.fish",
        "-rw-r--r-- /usr/share/zsh/vendor-completions/_plax-tool"})
    assert {line.partition("/root ")[0] for line in listing if line.endswith("/")} == {"drwxr-xr-x root"}


@debian
def test_files_of_the_standins_debian_package(packages):
    listing = debian_listing(package_file(packages, "plax-tool-standin_*.deb"))
    assert {line for line in listing if not line.endswith("/")} == owned(below("/usr", STANDIN) | {
        "-rw-r--r-- /usr/share/doc/plax-tool-standin/changelog.Debian.gz",
        "-rw-r--r-- /usr/share/fish/vendor_completions.d/plaxd-standin.fish",
        "-rw-r--r-- /usr/share/zsh/vendor-completions/_plaxd-standin",
        f"-rw-r--r-- /usr/lib/{sysconfig.get_config_var('MULTIARCH')}/wireshark/plugins/plaxd.lua"})
    assert {line.partition("/root ")[0] for line in listing if line.endswith("/")} == {"drwxr-xr-x root"}


def debian_fields(path):
    fields = output("dpkg-deb", "--field", path, "Package", "Section", "Maintainer", "Depends", "Recommends", "Suggests",
                    "Description")
    # On 32-bit processors with 64-bit times, and on all others for their sake, libraries are renamed to NAMEt64.
    return re.sub(r"(?:t64)? \(>= [0-9.]+\)", " (>= VERSION)", fields)


@debian
def test_fields_of_the_tools_debian_package(packages):
    assert debian_fields(package_file(packages, "plax-tool_*.deb")) == """\
Package: plax-tool
Section: admin
Maintainer: plax-tool maintainers <maintainers@plax-tool.invalid>
Depends: libc6 (>= VERSION)
Suggests: plax-tool-standin
Description: administer plaxd, the placement daemon of clustered storage
 plaxd places the components of stored objects on the disks, disk groups,
 hosts and fault domains of a storage cluster. Each run of plax-tool sends it
 one command, for example to show statistics, to repair an object, to rebalance
 disks, or to plan a decommissioning.
 .
 The manual page, other documents, and completions for bash, zsh and fish are
 included.
"""


@debian
def test_fields_of_the_standins_debian_package(packages):
    assert debian_fields(package_file(packages, "plax-tool-standin_*.deb")) == """\
Package: plax-tool-standin
Section: admin
Maintainer: plax-tool maintainers <maintainers@plax-tool.invalid>
Depends: libc6 (>= VERSION), libgcc-s1 (>= VERSION), libpcap0.8 (>= VERSION), libstdc++6 (>= VERSION)
Recommends: plax-tool
Description: rehearse plax-tool scripts without a storage cluster
 plaxd-standin takes the place of plaxd, the placement daemon of clustered
 storage: it answers plax-tool as told, logs each request decoded field by
 field, and misbehaves on demand.
"""


def rpm_query(path, text):
    return output("rpm", "--query", "--package", "--queryformat", text, path)


def rpm_listing(path):
    return set(rpm_query(path, r"[%{FILEMODES:perms} %{FILEUSERNAME}/%{FILEGROUPNAME} %{FILENAMES}\n]").splitlines())


@rpm
def test_files_of_the_tools_rpm(packages):
    assert rpm_listing(package_file(packages, "plax-tool-[0-9]*.rpm")) == owned(below("/usr", TOOL) | {
        "-rw-r--r-- /usr/share/fish/vendor_completions.d/plax-tool.fish",
        "-rw-r--r-- /usr/share/zsh/site-functions/_plax-tool",
        "drwxr-xr-x /usr/lib/plax-tool",
        "drwxr-xr-x /usr/share/bash-completion",
        "drwxr-xr-x /usr/share/bash-completion/completions",
        "drwxr-xr-x /usr/share/doc/plax-tool",
        "drwxr-xr-x /usr/share/doc/plax-tool/docs",
        "drwxr-xr-x /usr/share/fish",
        "drwxr-xr-x /usr/share/fish/vendor_completions.d",
        "drwxr-xr-x /usr/share/zsh",
        "drwxr-xr-x /usr/share/zsh/site-functions"})


@rpm
def test_files_of_the_standins_rpm(packages):
    assert rpm_listing(package_file(packages, "plax-tool-standin-[0-9]*.rpm")) == owned(below("/usr", STANDIN) | {
        "-rw-r--r-- /usr/lib64/wireshark/plugins/plaxd.lua",
        "-rw-r--r-- /usr/share/fish/vendor_completions.d/plaxd-standin.fish",
        "-rw-r--r-- /usr/share/zsh/site-functions/_plaxd-standin",
        "drwxr-xr-x /usr/lib64/wireshark",
        "drwxr-xr-x /usr/lib64/wireshark/plugins",
        "drwxr-xr-x /usr/share/bash-completion",
        "drwxr-xr-x /usr/share/bash-completion/completions",
        "drwxr-xr-x /usr/share/doc/plax-tool-standin",
        "drwxr-xr-x /usr/share/doc/plax-tool-standin/examples",
        "drwxr-xr-x /usr/share/fish",
        "drwxr-xr-x /usr/share/fish/vendor_completions.d",
        "drwxr-xr-x /usr/share/zsh",
        "drwxr-xr-x /usr/share/zsh/site-functions"})


RPM_TEXTS = r"""%{NAME}
%{LICENSE}
%{VENDOR}
%{PACKAGER}
[Suggests: %{SUGGESTS}\n][Recommends: %{RECOMMENDS}\n]%{SUMMARY}
%{DESCRIPTION}
"""


@rpm
def test_texts_of_the_tools_rpm(packages):
    assert rpm_query(package_file(packages, "plax-tool-[0-9]*.rpm"), RPM_TEXTS) == """\
plax-tool
MIT
plax-tool maintainers
plax-tool maintainers <maintainers@plax-tool.invalid>
Suggests: plax-tool-standin
Administer plaxd, the placement daemon of clustered storage
plaxd places the components of stored objects on the disks, disk groups,
hosts and fault domains of a storage cluster. Each run of plax-tool sends it
one command, for example to show statistics, to repair an object, to rebalance
disks, or to plan a decommissioning.

The manual page, other documents, and completions for bash, zsh and fish are
included.
"""


@rpm
def test_texts_of_the_standins_rpm(packages):
    assert rpm_query(package_file(packages, "plax-tool-standin-[0-9]*.rpm"), RPM_TEXTS) == """\
plax-tool-standin
MIT
plax-tool maintainers
plax-tool maintainers <maintainers@plax-tool.invalid>
Recommends: plax-tool
Rehearse plax-tool scripts without a storage cluster
plaxd-standin takes the place of plaxd, the placement daemon of clustered
storage: it answers plax-tool as told, logs each request decoded field by
field, and misbehaves on demand.
"""


def rpm_names(path, tag):
    """The package's dependencies or provided names, without versions, processors, and rpm's own features."""
    names = (re.split(r"[( ]", name)[0] for name in rpm_query(path, rf"[%{{{tag}}}\n]").splitlines())
    return set(names) - {"rpmlib", "rtld", "ld-linux-x86-64.so.2"}


@rpm
@pytest.mark.parametrize("pattern, requires, provides", [
    ("plax-tool-[0-9]*.rpm", {"libc.so.6"}, {"plax-tool"}),
    ("plax-tool-standin-[0-9]*.rpm", {"libc.so.6", "libgcc_s.so.1", "libpcap.so.0.8", "libstdc++.so.6"}, {"plax-tool-standin"}),
])
def test_dependencies_of_the_rpms(packages, pattern, requires, provides):
    path = package_file(packages, pattern)
    assert (rpm_names(path, "REQUIRES"), rpm_names(path, "PROVIDES")) == (requires, provides)
