"""The packages' contents, made from a finished build without building packages; and a private
system in which they are installed.

`Packages` installs the build into a folder and sorts the files into packages by the same lists and
with the same rules as debhelper, which need not be there. `Installed` lays those packages over this
machine's /usr and /etc in a mount namespace with its own network and processes: nothing that runs
there is seen from outside, and nothing of it is left.
"""
import os
import re
import shutil
import subprocess
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("COLLECTOR_BUILD", ROOT / "build")).resolve()
DEBIAN = ROOT / "packaging" / "debian"
DAEMON = "velmor-siem-collector"
# Where debhelper puts debian/NAME.KIND, and with which mode.
DECLARED = {
    "service": (f"usr/lib/systemd/system/{DAEMON}.service", 0o644),
    "init": (f"etc/init.d/{DAEMON}", 0o755),
    "sysusers": (f"usr/lib/sysusers.d/{DAEMON}.conf", 0o644),
    "tmpfiles": (f"usr/lib/tmpfiles.d/{DAEMON}.conf", 0o644),
}

# $1 the tree of the packages, $2 an empty folder. Everything that is written goes to memory, and
# the build is out of sight, so that no installed program finds its library there. What follows the
# mounts is what the packages' installation does.
ENTER = r"""
set -e
tree=$1 memory=$2 build=$3; shift 3
mount -t tmpfs -o mode=0755 tmpfs "$memory"
cp -a /etc "$memory/etc"
rm -rf "$memory"/etc/logrotate.d/* # this machine's other rules are no part of it
cp -a "$tree/etc/." "$memory/etc/"
mount --bind "$memory/etc" /etc
cd "$tree"
mount -t overlay overlay -o lowerdir=usr:/usr /usr
cd /
for folder in "$build" /run /var/log /var/lib; do mount -t tmpfs -o mode=0755 tmpfs "$folder"; done
mkdir -m 1777 /run/lock
[ /var/lock -ef /run/lock ] || mount --bind /run/lock /var/lock
for step in unpacked half-configured installed; do
    for package in velmor-siem-collector siem-collector-tools libruv1; do
        echo "2026-11-21 12:00:00 status $step $package:amd64 1.0.0-1"
    done
done >/var/log/dpkg.log
python3 -c 'import fcntl, socket, struct
with socket.socket() as s:  # the loopback device up, and running
    fcntl.ioctl(s, 0x8914, struct.pack("16sH14x", b"lo", 0x1 | 0x40))'
make_account="systemd-sysusers velmor-siem-collector.conf"
command -v systemd-sysusers >/dev/null ||
    make_account="useradd --system --user-group --shell /usr/sbin/nologin velmor-siem"
said=$($make_account 2>&1) || { echo "$said"; exit 1; }
if command -v systemd-tmpfiles >/dev/null; then
    systemd-tmpfiles --create velmor-siem-collector.conf >/dev/null || true
fi
exec "$@"
"""
NAMESPACES = ["unshare", "--mount", "--net", "--pid", "--fork", "--kill-child", "--mount-proc",
              "--propagation", "private"]


def build_setting(name):
    """A variable of the build's cache, or an empty text."""
    found = re.search(rf"^{name}:\w+=(.*)$", (BUILD / "CMakeCache.txt").read_text(), re.M)
    return found[1] if found else ""


class Packages:
    """`tree` has every file of every package at its place; `owners` maps it to its package."""

    def __init__(self, folder):
        self.folder = Path(folder)
        self.tree = self.folder / "tree"
        self.tree.mkdir()
        self.owners = {}
        self.missing = []  # rows of the lists that match nothing
        self._stage = self.folder / "debian"
        self._built = self._stage / "tmp"
        self._install()
        self._taken = set()
        for package in re.findall(r"^Package: (\S+)", (DEBIAN / "control").read_text(), re.M):
            self._fill(package)
        self._add_declared()
        self._run_rules()
        self._unite()
        self.unclaimed = sorted(
            str(file.relative_to(self._built)) for file in self._files(self._built)
            if file not in self._taken)

    def _install(self):
        """The install step of a build for packages. Only its configuration is made: what it would
        compile is taken from the build that is tested."""
        private = self.folder / "build"
        generator = ["-G", build_setting("CMAKE_GENERATOR")]
        self._run("cmake", *generator, "-S", ROOT, "-B", private, "-DCMAKE_INSTALL_PREFIX=/usr",
                  "-DCMAKE_INSTALL_SYSCONFDIR=/etc", "-DCOLLECTOR_TESTS=OFF",
                  *(f"-D{name}={build_setting(name)}" for name in (
                      "CMAKE_MAKE_PROGRAM", "CMAKE_C_COMPILER", "CMAKE_CXX_COMPILER")))
        for made in ("bin", "lib"):
            shutil.rmtree(private / made, ignore_errors=True)
            (private / made).symlink_to(BUILD / made)
        if (BUILD / "man").exists():  # pages without a source are made by the configuration
            shutil.copytree(BUILD / "man", private / "man", dirs_exist_ok=True)
        self._run("cmake", "--install", private, env=dict(os.environ, DESTDIR=str(self._built)))
        cache = (private / "CMakeCache.txt").read_text()
        self.libdir = re.search(r"^CMAKE_INSTALL_LIBDIR:\w+=(.*)$", cache, re.M)[1]
        self.has_pages = "COLLECTOR_SCDOC:FILEPATH=/" in cache

    def _run(self, *command, **options):
        done = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)
        if done.returncode != 0:
            raise AssertionError(f"{command}: {done.returncode}\n{done.stdout}")

    def _fill(self, package):
        """What dh_install does with the package's list: a pattern, or a pattern and a folder."""
        listed = DEBIAN / f"{package}.install"
        for row in listed.read_text().splitlines():
            pattern, *folder = row.replace("${DEB_HOST_MULTIARCH}", Path(self.libdir).name).split()
            if pattern.startswith("usr/share/man/") and not self.has_pages:
                continue
            for place in (self._built, ROOT):
                found = sorted(place.glob(pattern))
                if found:
                    break
            else:
                self.missing.append(f"{listed.name}: {row}")
            for file in found:
                target = folder[0] if folder else file.parent.relative_to(place)
                self._put(file, package, Path(target) / file.name)
                if place == self._built:
                    self._taken |= {file, *self._files(file)}
        for kind, place in (("docs", ""), ("examples", "examples")):
            listed = DEBIAN / f"{package}.{kind}"
            for row in listed.read_text().split() if listed.exists() else ():
                target = Path("usr/share/doc", package, place, Path(row).name)
                self._put(ROOT / row, package, target)

    @staticmethod
    def _files(folder):
        return (file for file in folder.rglob("*") if file.is_symlink() or not file.is_dir())

    def _put(self, source, package, target):
        target = self._stage / package / target
        target.parent.mkdir(parents=True, exist_ok=True)
        if source.is_dir():
            shutil.copytree(source, target, symlinks=True, dirs_exist_ok=True)
        else:
            shutil.copy2(source, target, follow_symlinks=False)

    def _add_declared(self):
        """The unit and its like, which scripts/package copies to names that debhelper looks for."""
        script = (ROOT / "scripts" / "package").read_text()
        copies = re.findall(r'^cp (packaging/unit/\S+) "\$tree/debian/\$name\.(\w+)"', script, re.M)
        if sorted(kind for _, kind in copies) != sorted(DECLARED):
            raise AssertionError(f"scripts/package copies {copies}")
        for source, kind in copies:
            place, mode = DECLARED[kind]
            self._put(ROOT / source, DAEMON, Path(place))
            (self._stage / DAEMON / place).chmod(mode)

    def _run_rules(self):
        """The rules' own step after the files are in place."""
        rules = DEBIAN / "rules"
        recipe = re.search(r"^execute_after_dh_link:\n((?:\t.*\n)+)", rules.read_text(), re.M)[1]
        script = re.sub(r"\\\n\t*", " ", recipe).replace("$$", "$")
        self._run("sh", "-ec", script, cwd=self.folder)

    def _unite(self):
        for package in sorted(self._stage.iterdir()):
            if package == self._built:
                continue
            for file in self._files(package):
                name = file.relative_to(package)
                if str(name) in self.owners:
                    raise AssertionError(f"{name} is in two packages")
                self.owners[str(name)] = package.name
                (self.tree / name).parent.mkdir(parents=True, exist_ok=True)
                shutil.move(file, self.tree / name)


class Installed:
    """The packages on a private copy of this system."""

    def __init__(self, folder, tree):
        self.memory = Path(folder) / "memory"
        self.memory.mkdir()
        self.tree = tree

    @staticmethod
    def obstacle():
        """Why there can be no private system here, or None."""
        with tempfile.TemporaryDirectory() as folder:
            probe = ('cd "$1" && mkdir a && mount -t overlay overlay -o lowerdir=a:/usr /usr && '
                     "mount -t tmpfs tmpfs a")
            try:
                done = subprocess.run([*NAMESPACES, "sh", "-c", probe, "sh", folder], text=True,
                                      stdin=subprocess.DEVNULL, capture_output=True, check=False)
            except OSError as error:
                return str(error)
            return None if done.returncode == 0 else done.stderr.strip() or "no namespace"

    def command(self, *command):
        return [*NAMESPACES, "sh", "-c", ENTER, "sh", str(self.tree), str(self.memory), str(BUILD),
                *command]

    @staticmethod
    def environment():
        """What an administrator's shell has, and nothing of the tests'."""
        return {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                "HOME": "/root", "LANG": "C.UTF-8",
                "ASAN_OPTIONS": "verify_asan_link_order=0",
                "TSAN_OPTIONS": os.environ.get("TSAN_OPTIONS", "")}

    def run(self, script, timeout=120):
        """The ended run of a script inside, with its two outputs in one."""
        return subprocess.run(self.command("bash", "-c", script), env=self.environment(),
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                              stderr=subprocess.STDOUT, timeout=timeout, check=False)
