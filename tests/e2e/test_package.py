"""The Debian package that CPack makes of the build tree: its control data
and file list, lintian's verdict, and a whole life in a fresh root of its
own (dpkg --root, the maintainer scripts run without chroot and honour
DPKG_ROOT): installed, with the user kst and its directories made; installed
again over itself; removed; purged. Then the same with apt-get in a
copy-on-write view of this system (an overlay in a mount namespace of its
own), as an administrator would. This system's own users and packages are
never touched."""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

from kstlib import KST, need, read_text
from test_install import BUILD, EXECUTABLES, FILES

CPACK = os.environ.get("CPACK_COMMAND", "cpack")
VERSION = "0.1.9.2"


def run(cmd, **kw):
    return subprocess.run(cmd, capture_output=True, text=True, timeout=kw.pop("timeout", 300), **kw)


PKG = {}


def setUpModule():
    """One package for every test of the module, made in a directory of its own."""
    for tool in ("dpkg-deb", "dpkg-shlibdeps", "dpkg"):
        need(tool)
    PKG["dir"] = tempfile.mkdtemp(prefix="kst-package-")
    r = run([CPACK, "--config", os.path.join(BUILD, "CPackConfig.cmake"), "-G", "DEB",
             "-B", os.path.join(PKG["dir"], "out")], cwd=BUILD)
    if r.returncode != 0:
        shutil.rmtree(PKG["dir"], ignore_errors=True)
        raise AssertionError("cpack failed:\n" + r.stdout + r.stderr)
    PKG["arch"] = run(["dpkg", "--print-architecture"]).stdout.strip()
    PKG["deb"] = os.path.join(PKG["dir"], "out", f"kst_{VERSION}_{PKG['arch']}.deb")


def tearDownModule():
    if "dir" in PKG:
        shutil.rmtree(PKG["dir"], ignore_errors=True)


class PackageCase(unittest.TestCase):
    def setUp(self):
        self.deb, self.arch = PKG["deb"], PKG["arch"]
        self.dir = tempfile.mkdtemp(prefix="kst-package-test-")

    def tearDown(self):
        shutil.rmtree(self.dir, ignore_errors=True)


class PackageTest(PackageCase):
    def field(self, name):
        r = run(["dpkg-deb", "-f", self.deb, name])
        self.assertEqual(r.returncode, 0, r.stderr)
        return r.stdout.strip()

    def test_control_data(self):
        self.assertTrue(os.path.isfile(self.deb), self.deb)
        self.assertEqual([self.field(f) for f in ("Package", "Version", "Architecture", "Section", "Priority")],
                         ["kst", VERSION, self.arch, "video", "optional"])
        self.assertEqual(self.field("Maintainer"), "kst developers <kst@morvane.invalid>")
        self.assertTrue(self.field("Description").startswith("stream snapshot manager for MPEG transport "
                                                             "streams\n kst reads one MPEG transport stream"))
        # Computed from the binaries: libconfig's package among them.
        depends = [d.strip().split(" ")[0] for d in self.field("Depends").split(",")]
        for pkg in ("passwd", "libc6", "libconfig9", "libstdc++6"):
            self.assertIn(pkg, depends)

        r = run(["dpkg-deb", "-I", self.deb])
        self.assertEqual(r.returncode, 0, r.stderr)
        members = re.findall(r"^\s+\d+ bytes,\s+\d+ lines\s+(\*?)\s+(\S+)", r.stdout, re.M)
        self.assertEqual(sorted(members), [("", "control"), ("", "md5sums"), ("*", "postinst"), ("*", "postrm")])

    def test_file_list(self):
        r = run(["dpkg-deb", "-c", self.deb])
        self.assertEqual(r.returncode, 0, r.stderr)
        files, dirs = {}, []
        for line in r.stdout.splitlines():
            mode, owner, _size, _date, _time, path = line.split(None, 5)
            self.assertEqual(owner, "root/root", line)
            if mode.startswith("d"):
                dirs.append(path)
            else:
                files[path] = mode
        self.assertEqual(sorted(files), sorted("./usr/" + f for f in FILES))
        for f in FILES:
            self.assertEqual(files["./usr/" + f], "-rwxr-xr-x" if f in EXECUTABLES else "-rw-r--r--", f)
        self.assertTrue(all(d.startswith("./usr/") for d in dirs), dirs)

        # The binaries are stripped, and the units name /usr.
        x = os.path.join(self.dir, "x")
        self.assertEqual(run(["dpkg-deb", "-x", self.deb, x]).returncode, 0)
        need("file")
        for b in ("kst", "kst-web", "lardcat"):
            self.assertIn(", stripped", run(["file", os.path.join(x, "usr/bin", b)]).stdout)
        unit = read_text(os.path.join(x, "usr/lib/systemd/system/kst@.service"))
        self.assertIn("ExecStart=/usr/bin/kst -T ", unit)
        self.assertIn("ExecStopPost=/usr/libexec/kst-clean-rings\n", unit)

    def test_maintainer_scripts(self):
        ctl = os.path.join(self.dir, "control")
        self.assertEqual(run(["dpkg-deb", "-e", self.deb, ctl]).returncode, 0)
        top = os.path.abspath(os.path.join(os.path.dirname(__file__), "../.."))
        for script in ("postinst", "postrm"):
            path = os.path.join(ctl, script)
            self.assertEqual(read_text(path), read_text(os.path.join(top, "dist/debian", script)))
            self.assertEqual(os.stat(path).st_mode & 0o777, 0o755)
            self.assertEqual(run(["sh", "-n", path]).returncode, 0)
            self.assertTrue(read_text(path).startswith("#!/bin/sh\n"))
        sums = read_text(os.path.join(ctl, "md5sums")).splitlines()
        self.assertEqual(sorted(l.split("  ", 1)[1] for l in sums), sorted("usr/" + f for f in FILES))

    def test_lintian_finds_no_error(self):
        if shutil.which("lintian") is None:
            self.skipTest("lintian is not installed (scripts/deps installs it)")
        r = run(["lintian", "--pedantic", "--display-info", self.deb], timeout=600)
        tags = [l for l in r.stdout.splitlines() if re.match(r"^[EWIPX]: ", l)]
        # Told, not failed: what lintian still has to say.
        sys.stderr.write("lintian: " + ("\n".join(tags) if tags else "nothing") + "\n")
        self.assertEqual([t for t in tags if t.startswith("E: ")], [], r.stdout + r.stderr)
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)

    def test_install_reinstall_remove_purge_in_a_fresh_root(self):
        if os.geteuid() != 0:
            self.skipTest("the maintainer script gives directories to the user kst: root only")
        need("useradd")
        root = os.path.join(self.dir, "root")
        for d in ("var/lib/dpkg/info", "var/lib/dpkg/updates", "etc"):
            os.makedirs(os.path.join(root, d))
        for name, text in (("var/lib/dpkg/status", ""), ("var/lib/dpkg/available", ""),
                           ("etc/passwd", "root:x:0:0:root:/root:/bin/sh\n"), ("etc/group", "root:x:0:\n"),
                           ("etc/shadow", "root:*:20000:0:99999:7:::\n"), ("etc/gshadow", "root:*::\n")):
            with open(os.path.join(root, name), "w") as f:
                f.write(text)
        with open("/etc/passwd") as f:
            host_passwd = f.read()

        # The libraries are this system's, not the root's: their packages
        # are missing there, on purpose.
        dpkg = ["dpkg", f"--root={root}", "--force-script-chrootless", "--force-depends"]
        r = run(dpkg + ["-i", self.deb])
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
        self.assertIn(f"Setting up kst ({VERSION}) ...", r.stdout)

        listed = run(["dpkg", f"--root={root}", "-L", "kst"]).stdout.split()
        for f in FILES:
            self.assertIn("/usr/" + f, listed)
            self.assertTrue(os.path.isfile(os.path.join(root, "usr", f)), f)
        r = run([os.path.join(root, "usr/bin/kst"), "-V"])
        self.assertEqual(r.returncode, 1)
        self.assertEqual(r.stderr, run([KST, "-V"]).stderr)

        def users():
            return [l for l in read_text(os.path.join(root, "etc/passwd")).splitlines() if l.startswith("kst:")]

        self.assertEqual(len(users()), 1)
        name, _, uid, gid, comment, home, shell = users()[0].split(":")
        self.assertEqual((comment, home, shell), ("kst stream snapshot manager", "/var/lib/kst", "/usr/sbin/nologin"))
        self.assertLess(int(uid), 1000)
        self.assertIn(f"kst:x:{gid}:", read_text(os.path.join(root, "etc/group")).splitlines())
        for d in ("var/lib/kst", "var/lib/kst/snapshots", "var/log/kst"):
            st = os.stat(os.path.join(root, d))
            self.assertEqual((st.st_uid, st.st_gid, st.st_mode & 0o777), (int(uid), int(gid), 0o750), d)
        self.assertTrue(os.path.isdir(os.path.join(root, "etc/kst")))

        # Again over itself: the user is not made twice.
        r = run(dpkg + ["-i", self.deb])
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
        self.assertEqual(len(users()), 1)

        with open(os.path.join(root, "var/log/kst/kst1.log"), "w") as f:
            f.write("a log line\n")
        r = run(dpkg + ["-r", "kst"])
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
        self.assertFalse(os.path.exists(os.path.join(root, "usr")) and
                         any(files for _, _, files in os.walk(os.path.join(root, "usr"))))
        self.assertTrue(os.path.isfile(os.path.join(root, "var/log/kst/kst1.log")))
        self.assertRegex(run(["dpkg", f"--root={root}", "-l", "kst"]).stdout, r"\nrc\s+kst\s")

        r = run(dpkg + ["-P", "kst"])
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
        for d in ("var/log/kst", "var/lib/kst", "etc/kst"):
            self.assertFalse(os.path.exists(os.path.join(root, d)), d)
        self.assertNotEqual(run(["dpkg", f"--root={root}", "-s", "kst"]).returncode, 0)
        # The user stays, as Debian keeps system users: files may be theirs.
        self.assertEqual(len(users()), 1)

        with open("/etc/passwd") as f:
            self.assertEqual(f.read(), host_passwd)


# Runs in a mount namespace of its own: this system as the lower layer of an
# overlay, every write going to a directory of the test's; then apt-get in a
# chroot into it. The marks between the steps are for the test to cut at.
OVERLAY = r"""
set -e
w=$1 deb=$2
mkdir -p "$w/upper" "$w/work" "$w/merged"
mount -t overlay overlay -o "lowerdir=/,upperdir=$w/upper,workdir=$w/work" "$w/merged"
for d in /proc /dev /dev/pts; do mount --bind "$d" "$w/merged$d"; done
mkdir -p "$w/merged/tmp/kst-deb"
cp "$deb" "$w/merged/tmp/kst-deb/"
exec chroot "$w/merged" sh -c '
    export DEBIAN_FRONTEND=noninteractive
    deb=/tmp/kst-deb/$1
    echo "== install"
    apt-get install -y "$deb" >/tmp/kst-deb/apt.log 2>&1 || { cat /tmp/kst-deb/apt.log; exit 1; }
    dpkg-query -W -f "\${Status} \${Version}\n" kst
    getent passwd kst | cut -d: -f1,6,7
    stat -c "%U:%G %a %n" /var/lib/kst /var/lib/kst/snapshots /var/log/kst
    command -v kst
    man -w kst
    echo "== remove"
    apt-get remove -y kst >/tmp/kst-deb/apt.log 2>&1 || { cat /tmp/kst-deb/apt.log; exit 1; }
    dpkg-query -W -f "\${Status}\n" kst
    [ -e /usr/bin/kst ] || echo "no kst"
    echo "== purge"
    apt-get purge -y kst >/tmp/kst-deb/apt.log 2>&1 || { cat /tmp/kst-deb/apt.log; exit 1; }
    dpkg-query -W kst 2>/dev/null || echo "no package"
    ls -d /var/log/kst /var/lib/kst /etc/kst 2>/dev/null || echo "no directories"
    getent passwd kst | cut -d: -f1
' - "${deb##*/}"
"""


class AptTest(PackageCase):
    """apt-get install ./kst_*.deb, remove and purge, in a copy of this system."""

    def test_apt_get_install_remove_purge(self):
        if os.geteuid() != 0:
            self.skipTest("mounts an overlay: root only")
        need("unshare")
        need("apt-get")
        w = os.path.join(self.dir, "overlay")
        os.mkdir(w)
        probe = run(["unshare", "-m", "sh", "-c",
                     f"mkdir -p {w}/p/u {w}/p/w {w}/p/m && mount -t overlay overlay "
                     f"-o lowerdir=/,upperdir={w}/p/u,workdir={w}/p/w {w}/p/m"])
        if probe.returncode != 0:
            self.skipTest("no overlay of / here: " + probe.stderr)
        r = run(["unshare", "-m", "sh", "-c", OVERLAY, "-", w, self.deb], timeout=600)
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
        self.assertEqual(r.stdout.splitlines(), [
            "== install",
            f"install ok installed {VERSION}",
            "kst:/var/lib/kst:/usr/sbin/nologin",
            "kst:kst 750 /var/lib/kst",
            "kst:kst 750 /var/lib/kst/snapshots",
            "kst:kst 750 /var/log/kst",
            "/usr/bin/kst",
            "/usr/share/man/man1/kst.1.gz",
            "== remove",
            "deinstall ok config-files",
            "no kst",
            "== purge",
            "no package",
            "no directories",
            "kst",
        ])
        self.assertIsNone(shutil.which("kst", path="/usr/bin"))


if __name__ == "__main__":
    unittest.main()
