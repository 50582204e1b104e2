"""An installation from the build directory: its files, a run of the tool, the completions, and `uninstall`."""

import gzip
import json
import os
from pathlib import Path
import re
import shutil
import subprocess
import sysconfig

import pytest
from conftest import BUILD, run_cmake
from files import STANDIN, TOOL, below, directory_modes, listing
from binaries import is_sanitized
import harness
from harness import Outcome, ScriptedDaemon, reply, tool

SOURCE_DIR = os.environ["PLAX_SOURCE_DIR"]
MULTIARCH = sysconfig.get_config_var("MULTIARCH")
ON_DEBIAN = os.path.exists("/etc/debian_version")

# Prefix, and the directories for the completions of zsh and fish.
COMPLETIONS = [
    ("/usr", f"/usr/share/zsh/{'vendor-completions' if ON_DEBIAN else 'site-functions'}/_plax-tool",
     "/usr/share/fish/vendor_completions.d/plax-tool.fish"),
    ("/usr/local", "/usr/local/share/zsh/site-functions/_plax-tool", "/etc/fish/completions/plax-tool.fish"),
]
OTHER_PREFIX = ("/opt/placement", "/opt/placement/share/zsh/site-functions/_plax-tool",
                "/opt/placement/share/fish/vendor_completions.d/plax-tool.fish")
# The directory that Wireshark searches for dissectors, on Debian and elsewhere.
DISSECTOR = f"/usr/lib{f'/{MULTIARCH}' if ON_DEBIAN else '64'}/wireshark/plugins/plaxd.lua"
STANDIN_FILES = ["share/doc/plax-tool-standin/standin-answers.schema.json", "share/doc/plax-tool-standin/examples"]
needs_standin = pytest.mark.skipif("PLAXD_STANDIN" not in os.environ, reason="the stand-in is not built")


@pytest.mark.parametrize("prefix, zsh, fish", [*COMPLETIONS, OTHER_PREFIX])
def test_files_of_the_tool(installed, prefix, zsh, fish):
    root = installed(prefix)
    assert listing(root) == below(prefix, TOOL) | {f"-rw-r--r-- {zsh}", f"-rw-r--r-- {fish}"}
    assert directory_modes(root) == {"drwxr-xr-x"}


@needs_standin
@pytest.mark.parametrize("prefix, zsh, fish", [*COMPLETIONS, OTHER_PREFIX])
def test_files_of_the_standin(installed, prefix, zsh, fish):
    root = installed(prefix, "plax-tool-standin")
    dissector = DISSECTOR if prefix == "/usr" else f"{prefix}/lib/wireshark/plugins/plaxd.lua"
    others = {f"-rw-r--r-- {path}" for path in (*(path.replace("plax-tool", "plaxd-standin") for path in (zsh, fish)),
                                                dissector)}
    assert listing(root) == below(prefix, STANDIN) | others
    assert directory_modes(root) == {"drwxr-xr-x"}


def test_links_between_the_documents_work(installed):
    documents = Path(f"{installed('/usr')}/usr/share/doc/plax-tool")
    broken = [f"{path.relative_to(documents)} {link}" for path in documents.rglob("*.md")
              for link in re.findall(r"\]\((?!https?:|#)([^)#]+)", path.read_text(encoding="utf-8"))
              if not path.parent.joinpath(link).is_file()]
    # Debian's packages have the licence in the copyright file.
    assert broken == ["README.md LICENSE"]


@needs_standin
def test_examples_name_the_schema_where_it_is(installed):
    examples = Path(f"{installed('/usr', 'plax-tool-standin')}/usr/share/doc/plax-tool-standin/examples")
    named = {path.name: json.loads(path.read_text())["$schema"] for path in examples.glob("*.json")}
    assert named == dict.fromkeys(["bad-day.json", "healthy.json"], "../standin-answers.schema.json")
    assert json.loads((examples / "../standin-answers.schema.json").read_text())["title"] == "Answers of plaxd-standin"


@needs_standin
@pytest.mark.parametrize("prefix", ["/usr", "/opt/placement"])
@pytest.mark.parametrize("package, page, files", [
    ("plax-tool", "man8/plax-tool.8", ["share/doc/plax-tool"]),
    ("plax-tool-standin", "man1/plaxd-standin.1", STANDIN_FILES),
    ("plax-tool-standin", "man5/plaxd-standin-answers.5", STANDIN_FILES),
])
def test_page_names_files_that_are_there(installed, prefix, package, page, files):
    root = f"{installed(prefix, package)}{prefix}"
    with gzip.open(f"{root}/share/man/{page}.gz", "rt") as text:
        named = re.findall(r"^\.It Pa (share/.*)$", text.read(), re.MULTILINE)
    assert named == files
    assert all(os.path.exists(f"{root}/{path}") for path in named)


@pytest.mark.parametrize("place", ["/usr", "/elsewhere"])
def test_tool_runs_wherever_the_installation_is(installed, tmp_path, monkeypatch, place):
    shutil.copytree(f"{installed('/usr')}/usr", f"{tmp_path}{place}")
    monkeypatch.setattr(harness, "TOOL", f"{tmp_path}{place}/sbin/plax-tool")
    with ScriptedDaemon(reply(0, b"abc")) as plaxd:
        run = tool("-s", plaxd.path, "fitness-stats-get")
    assert run == Outcome(b"abc\n", b"", 0)
    # A message of the private library.
    assert tool("no-such-command", stdout=subprocess.DEVNULL) == Outcome(
        None, b"Unrecognized command: no-such-command\n", 1)


NAMESPACE = ["unshare", "--mount", *([] if os.geteuid() == 0 else ["--map-root-user"])]
WITHOUT_PROC = """
mount --bind "$ROOT/usr/local" /usr/local && mount -t tmpfs none /proc && ! test -e /proc/self && exec plax-tool nothing
"""


@pytest.mark.skipif(is_sanitized(os.environ["PLAX_TOOL"]), reason="the sanitizer reads /proc")
@pytest.mark.skipif(subprocess.run([*NAMESPACE, "true"], stderr=subprocess.DEVNULL, check=False).returncode != 0,
                    reason="the system allows no mount namespaces")
def test_tool_starts_without_proc(installed):
    environment = {"PATH": "/usr/local/sbin:/usr/bin:/bin", "ROOT": str(installed("/usr/local"))}
    run = subprocess.run([*NAMESPACE, "sh", "-c", WITHOUT_PROC], env=environment, stdin=subprocess.DEVNULL,
                         stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False)
    assert (run.stderr, run.returncode) == (b"Unrecognized command: nothing\n", 1)


@pytest.mark.skipif(not shutil.which("tshark"), reason="there is no tshark")
def test_tshark_looks_for_the_dissector_there():
    folders = subprocess.run(["tshark", "-G", "folders"], capture_output=True, text=True, check=True).stdout
    assert f"Global Lua Plugins:  \t{os.path.dirname(DISSECTOR)}\n" in folders


@needs_standin
def test_standin_runs(installed):
    program = f"{installed('/usr', 'plax-tool-standin')}/usr/bin/plaxd-standin"
    run = subprocess.run([program, "decode", "-"], input=b"\0\0\0\x12\0\0\0\0", capture_output=True, check=True)
    assert (run.stdout.splitlines()[0], run.stderr) == (b"what-if-cancel 18", b"")


@pytest.mark.parametrize("component, page, source", [
    ("plax-tool", "man8/plax-tool.8.gz", "man/plax-tool.8"),
    pytest.param("plax-tool-standin", "man1/plaxd-standin.1.gz", "man/plaxd-standin.1", marks=needs_standin),
    pytest.param("plax-tool-standin", "man5/plaxd-standin-answers.5.gz", "man/plaxd-standin-answers.5",
                 marks=needs_standin),
])
def test_manual_pages(installed, component, page, source):
    with gzip.open(f"{installed('/usr', component)}/usr/share/man/{page}", "rb") as installed_page, \
            open(f"{SOURCE_DIR}/{source}", "rb") as written:
        assert installed_page.read() == written.read()


def shell(command, root, home, **environment):
    run = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=True, timeout=60,
                         env={"PATH": f"{root}/usr/sbin:{root}/usr/local/sbin:/usr/sbin:/usr/bin:/sbin:/bin",
                              "HOME": str(home), "LC_ALL": "C.UTF-8", "ROOT": str(root), **environment})
    assert run.stderr == ""
    return run.stdout


# Asks each shell for its search directories, and has it search them below the installation's root.

BASH = r"""
. /usr/share/bash-completion/bash_completion
_completion_loader plax-tool
function=$(complete -p plax-tool | sed 's/.* -F \([^ ]*\) .*/\1/')
COMP_LINE="plax-tool what-if-c" COMP_POINT=19 COMP_WORDS=(plax-tool what-if-c) COMP_CWORD=1
"$function" plax-tool what-if-c plax-tool
printf '%s\n' "${COMPREPLY[@]% }"
"""


@pytest.mark.parametrize("prefix", ["/usr", "/usr/local"])
def test_bash_finds_the_completion(installed, tmp_path, prefix):
    root = installed(prefix)
    data = f"{root}/usr/local/share:{root}/usr/share"
    assert shell(["bash", "-c", BASH], root, tmp_path, XDG_DATA_DIRS=data) == "what-if-cancel\n"


ZSH = """
fpath=($ROOT$^fpath $fpath)
autoload -Uz compinit
compinit -D -u
autoload +X $_comps[plax-tool]
print -r -- $functions_source[$_comps[plax-tool]]
"""


@pytest.mark.parametrize("prefix, place, _", COMPLETIONS)
def test_zsh_finds_the_completion(installed, tmp_path, prefix, place, _):
    root = installed(prefix)
    assert shell(["zsh", "-fc", ZSH], root, tmp_path) == f"{root}{place}\n"


FISH = """
set fish_complete_path $ROOT$fish_complete_path
complete -C 'plax-tool what-if-c'
"""


@pytest.mark.parametrize("prefix", ["/usr", "/usr/local"])
def test_fish_finds_the_completion(installed, tmp_path, prefix):
    offers = shell(["fish", "-c", FISH], installed(prefix), tmp_path)
    assert offers == "what-if-cancel\tCancel on-going what-if operation\n"


@needs_standin
def test_uninstall_removes_all_but_the_directories_of_the_system(own_manifest, tmp_path):
    (tmp_path / "usr/local/share/doc").mkdir(parents=True)
    (tmp_path / "usr/local/share/doc/other").touch()
    run_cmake("--install", BUILD, "--prefix", "/usr/local", root=tmp_path)
    assert len(listing(tmp_path)) == len(TOOL) + 2 + len(STANDIN | {DISSECTOR}) + 2 + 1
    run_cmake("--build", BUILD, "--target", "uninstall", root=tmp_path)
    assert [f"{os.path.relpath(path, tmp_path)} {names}" for path, below_it, names in sorted(os.walk(tmp_path))
            if not below_it] == [
        "etc/fish/completions []", "usr/local/bin []", "usr/local/lib/wireshark/plugins []", "usr/local/sbin []",
        "usr/local/share/bash-completion/completions []", "usr/local/share/doc ['other']",
        "usr/local/share/man/man1 []", "usr/local/share/man/man5 []", "usr/local/share/man/man8 []",
        "usr/local/share/zsh/site-functions []"]
