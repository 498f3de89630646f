"""What is in the package, before anything is installed."""

import gzip
import re
import stat
import subprocess

import pytest

PROGRAMS = ["usr/sbin/lacpd", "usr/sbin/olt-switch", "usr/sbin/olt-datastore", "usr/lib/lacpd/bin/sysrepoctl",
            "usr/lib/lacpd/bin/sysrepocfg", "usr/share/lacpd/scripts/datastore.sh",
            "usr/share/lacpd/scripts/install-configuration.sh"]
FILES = ["etc/default/olt-switch", "usr/lib/systemd/system/lacpd.service",
         "usr/lib/systemd/system/olt-datastore.service", "usr/lib/systemd/system/olt-switch.service",
         "usr/share/doc/lacpd/copyright", "usr/share/lacpd/lacpd.conf", "usr/share/lacpd/nacm.xml",
         "usr/share/lacpd/yang/olt-ifm.yang", "usr/share/lacpd/yang/olt-lacp.yang", "usr/share/man/man8/lacpd.8.gz",
         "usr/share/man/man8/olt-datastore.8.gz", "usr/share/man/man8/olt-switch.8.gz"]
LIBRARIES = ["libyang.so.3", "libsysrepo.so.7", "libfrr.so.0"]


@pytest.fixture(scope="module")
def root(package, tmp_path_factory):
    """The package unpacked into a folder of its own."""
    folder = tmp_path_factory.mktemp("root") / "root"
    subprocess.run(["dpkg-deb", "-x", package, folder], check=True)
    return folder


def access(path):
    return stat.S_IMODE(path.stat().st_mode)


def needed_and_path(file):
    text = subprocess.run(["readelf", "-d", file], check=True, capture_output=True, text=True).stdout
    return re.findall(r"\(NEEDED\).*\[(.*)\]", text), re.findall(r"\((?:RUNPATH|RPATH)\).*\[(.*)\]", text)


def test_every_file_is_there_with_its_access(root):
    assert {path: oct(access(root / path)) for path in PROGRAMS} == {path: "0o755" for path in PROGRAMS}
    assert {path: oct(access(root / path)) for path in FILES} == {path: "0o644" for path in FILES}


def test_everything_belongs_to_root_and_nobody_else_can_write(package, root):
    listing = subprocess.run(["dpkg-deb", "-c", package], check=True, capture_output=True, text=True).stdout
    assert {line.split()[1] for line in listing.splitlines()} == {"root/root"}
    loose = [path for path in root.rglob("*") if not path.is_symlink() and access(path) & 0o022]
    assert loose == []


def test_libraries_are_searched_beside_the_programs_only(root):
    private = root / "usr/lib/lacpd"
    for name in LIBRARIES:
        assert needed_and_path(private / name)[1] == ["$ORIGIN"]
    for program, path in (("sbin/lacpd", "$ORIGIN/../lib/lacpd"), ("sbin/olt-switch", "$ORIGIN/../lib/lacpd"),
                          ("lib/lacpd/bin/sysrepoctl", "$ORIGIN/.."), ("lib/lacpd/bin/sysrepocfg", "$ORIGIN/..")):
        needed, paths = needed_and_path(root / "usr" / program)
        assert paths == [path]
        assert "libsysrepo.so.7" in needed


def test_no_script_and_no_unit_names_the_build(root, hidden):
    texts = [root / path for path in PROGRAMS + FILES if not path.startswith(("usr/sbin/lacpd", "usr/sbin/olt-switch",
                                                                               "usr/lib/lacpd/bin"))]
    for file in texts:
        text = (gzip.decompress(file.read_bytes()) if file.suffix == ".gz" else file.read_bytes()).decode()
        assert not [folder for folder in hidden if folder in text], file
        assert not re.search(r"@[A-Z_]+@", text), f"{file} has a name left to fill in"


def test_unpacked_programs_run_wherever_they_are(root, machine):
    assert machine.run(root / "usr/sbin/lacpd", "--version").stdout.startswith("lacpd version")
    assert "Implementation of the device lacp configuration." in machine.run(root / "usr/sbin/lacpd", "--help").stdout
    assert machine.run(root / "usr/sbin/olt-switch", "--version").stdout.startswith("olt-switch ")
    assert "sysrepoctl" in machine.run(root / "usr/lib/lacpd/bin/sysrepoctl", "--version").stdout


def test_manual_pages_have_no_mistakes(root):
    for page in sorted((root / "usr/share/man/man8").iterdir()):
        result = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-Tutf8", "-l", page], capture_output=True,
                                text=True, check=False)
        assert (result.returncode, result.stderr) == (0, "")
        assert "SEE ALSO" in re.sub(r"\x1b\[[0-9;]*m|.\x08", "", result.stdout)
