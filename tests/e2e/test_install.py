"""`cmake --install` of the build tree into a DESTDIR: the files that land,
the installed kst that runs and loads the installed example configuration,
manual pages that render without a warning, units that name the prefix
really used, bash completions that answer; and a read-only DESTDIR that
stops the install with one line that says so."""
import gzip
import os
import shutil
import subprocess
import tempfile
import unittest

from kstlib import KST, need, read_text

BUILD = os.environ.get("KST_BUILD_DIR", os.path.dirname(os.path.abspath(KST)))
CMAKE = os.environ.get("CMAKE_COMMAND", "cmake")

# Everything an install puts under its prefix, and nothing else.
FILES = [
    "bin/kst",
    "bin/kst-web",
    "bin/lardcat",
    "lib/systemd/system/kst-web.service",
    "lib/systemd/system/kst@.service",
    "libexec/kst-clean-rings",
    "share/bash-completion/completions/kst",
    "share/bash-completion/completions/kst-web",
    "share/bash-completion/completions/lardcat",
    "share/doc/kst/README.md",
    "share/doc/kst/alert-log.md",
    "share/doc/kst/changelog.gz",
    "share/doc/kst/copyright",
    "share/doc/kst/examples/kst-web.conf",
    "share/doc/kst/examples/kst.conf",
    "share/doc/kst/operations.md",
    "share/man/man1/kst-web.1.gz",
    "share/man/man1/kst.1.gz",
    "share/man/man1/lardcat.1.gz",
    "share/man/man8/kst-clean-rings.8.gz",
]
EXECUTABLES = {"bin/kst", "bin/kst-web", "bin/lardcat", "libexec/kst-clean-rings"}
PAGES = [f for f in FILES if f.startswith("share/man/")]


def install(destdir, prefix, runner=()):
    env = dict(os.environ, DESTDIR=destdir)
    return subprocess.run(list(runner) + [CMAKE, "--install", BUILD, "--prefix", prefix],
                          capture_output=True, text=True, timeout=120, env=env)


def landed(root):
    out = []
    for top, _, files in os.walk(root):
        out += [os.path.relpath(os.path.join(top, f), root) for f in files]
    return sorted(out)


# Completes the words of a command line with the installed completion, the
# way readline splits them: colons and equals signs are words of their own.
COMPLETE = r"""
source /usr/share/bash-completion/bash_completion
source "$1"
compopt() { :; }
line=$2
COMP_LINE=$line COMP_POINT=${#line} COMP_WORDS=() w=""
for ((i = 0; i < ${#line}; i++)); do
    ch=${line:i:1}
    if [[ $ch == " " ]]; then
        [[ $w ]] && COMP_WORDS+=("$w")
        w=""
    elif [[ $ch == [:=] ]]; then
        [[ $w ]] && COMP_WORDS+=("$w")
        COMP_WORDS+=("$ch")
        w=""
    else
        w+=$ch
    fi
done
COMP_WORDS+=("$w")
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
COMPREPLY=()
"$3"
echo "${COMPREPLY[*]}"
"""


class InstallTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="kst-install-")

    def tearDown(self):
        shutil.rmtree(self.dir, ignore_errors=True)

    def installed(self, prefix="/usr/local"):
        dest = os.path.join(self.dir, "dest")
        r = install(dest, prefix)
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
        return dest, dest + prefix

    def test_what_lands_and_runs(self):
        dest, root = self.installed()
        self.assertEqual(landed(dest), ["usr/local/" + f for f in FILES])
        for f in FILES:
            mode = os.stat(os.path.join(root, f)).st_mode & 0o777
            self.assertEqual(mode, 0o755 if f in EXECUTABLES else 0o644, f)

        # The installed binary is the one built, and says so.
        built = subprocess.run([KST, "-V"], capture_output=True, text=True, timeout=30)
        r = subprocess.run([os.path.join(root, "bin/kst"), "-V"], capture_output=True, text=True, timeout=30)
        self.assertEqual((r.returncode, r.stdout), (1, ""))
        self.assertTrue(r.stderr.startswith("kst (Stream snapshot manager) 0.1-9.2 (morvane) "), r.stderr)
        self.assertEqual(r.stderr, built.stderr)

        r = subprocess.run([os.path.join(root, "bin/lardcat"), "--help"], capture_output=True, text=True,
                           timeout=30)
        self.assertEqual(r.returncode, 0)
        self.assertTrue(r.stdout.startswith("Usage: lardcat list\n"), r.stdout)

    def test_units_name_the_prefix_used(self):
        for prefix in ("/usr/local", "/usr", "/opt/kst"):
            with self.subTest(prefix=prefix):
                dest, root = self.installed(prefix)
                unit = read_text(os.path.join(root, "lib/systemd/system/kst@.service")).splitlines()
                self.assertIn(f"ExecStart={prefix}/bin/kst -T -C /etc/kst/kst%i.conf --nid %i -i ${{KST_SOURCE}}",
                              unit)
                self.assertIn(f"ExecStopPost={prefix}/libexec/kst-clean-rings", unit)
                web = read_text(os.path.join(root, "lib/systemd/system/kst-web.service")).splitlines()
                self.assertIn(f"ExecStart={prefix}/bin/kst-web -c /etc/kst/kst-web.conf", web)
                with gzip.open(os.path.join(root, "share/man/man1/kst.1.gz"), "rt") as f:
                    page = f.read()
                self.assertIn(f".I {prefix}/libexec/kst\\-clean\\-rings\n", page)
                self.assertNotIn("@", page)
                shutil.rmtree(dest)

    def test_the_example_configuration_is_one_kst_loads(self):
        dest, root = self.installed()
        conf = read_text(os.path.join(root, "share/doc/kst/examples/kst.conf"))
        for d in ("/var/log/kst", "/var/lib/kst/snapshots"):
            self.assertIn(f'"{d}', conf)
            conf = conf.replace(f'"{d}', f'"{self.dir}')
        path = os.path.join(self.dir, "kst7.conf")
        with open(path, "w") as f:
            f.write(conf)
        # A file:// source stops the run before the first read, after the
        # settings in force went to the log.
        r = subprocess.run([os.path.join(root, "bin/kst"), "-T", "-C", path, "--nid", "7",
                            "-i", "file:///dev/null"], capture_output=True, text=True, timeout=30)
        self.assertEqual(r.returncode, 1, r.stderr)
        log = read_text(os.path.join(self.dir, "kst7.log"))
        for line in (f"\tDirectory      = {self.dir}", "\tFile prefix    = ch1-", "\tSize           = 64 Mb",
                     "\tTail           = 8/2000 Mb/ms", "\tRing           = kst.7, 64 pages",
                     "\tReload period   = 30 sec", "\tTPS report     = 60 sec"):
            self.assertIn(line + "\n", log)
        self.assertIn("run_app: stopped reading due to error in [set_rcv_timeout], rc=-1", log)
        self.assertFalse(os.path.exists("/dev/shm/kst.7.meta"))

    def test_manual_pages_render_without_warnings(self):
        need("groff")
        need("lexgrog")
        dest, root = self.installed()
        for page in PAGES:
            with self.subTest(page=page):
                path = os.path.join(root, page)
                with gzip.open(path, "rb") as f:
                    source = f.read()
                r = subprocess.run(["groff", "-ww", "-z", "-man"], input=source, capture_output=True,
                                   timeout=60)
                self.assertEqual((r.returncode, r.stdout, r.stderr), (0, b"", b""))
                name = os.path.basename(page).split(".")[0]
                r = subprocess.run(["lexgrog", path], capture_output=True, text=True, timeout=60)
                self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
                self.assertTrue(r.stdout.startswith(f'{path}: "{name} - '), r.stdout)
                env = dict(os.environ, MANWIDTH="80", LC_ALL="C.UTF-8")
                r = subprocess.run(["man", "--warnings", "-l", path], capture_output=True, text=True,
                                   timeout=60, env=env)
                self.assertEqual((r.returncode, r.stderr), (0, ""))
                self.assertIn("SEE ALSO", r.stdout)

    def test_every_option_of_the_usage_is_in_the_manual(self):
        dest, root = self.installed()
        with gzip.open(os.path.join(root, "share/man/man1/kst.1.gz"), "rt") as f:
            page = f.read().replace("\\-", "-")
        usage = subprocess.run([KST, "-h"], capture_output=True, text=True, timeout=30).stderr
        options = [w for line in usage.splitlines() for w in line.split()
                   if w.startswith("-") and w[1:2].isalpha()]
        self.assertGreater(len(options), 20)
        for option in options:
            for o in option.split("|"):
                if o.startswith("-"):
                    self.assertIn(o, page)
        self.assertIn("--options", page)

    def test_bash_completion(self):
        if not os.path.exists("/usr/share/bash-completion/bash_completion"):
            self.skipTest("bash-completion is not installed (scripts/deps installs it)")
        dest, root = self.installed()
        comp = os.path.join(root, "share/bash-completion/completions")

        def complete(program, line):
            fn = "_" + program.replace("-", "_")
            r = subprocess.run(["bash", "-c", COMPLETE, "-", os.path.join(comp, program), line, fn],
                               capture_output=True, text=True, timeout=30)
            self.assertEqual(r.stderr, "")
            return r.stdout.rstrip("\n")

        self.assertEqual(complete("kst", "kst -L "), "err error crit critical warn warning norm normal info "
                                                     "debug dbg")
        self.assertEqual(complete("kst", "kst --level=w"), "warn warning")
        self.assertEqual(complete("kst", "kst -A "), "on off enable disable skipped_pkts= pdts_delta= "
                                                     "pcr_delta= pcr_freq=")
        self.assertEqual(complete("kst", "kst -A pcr"), "pcr_delta= pcr_freq=")
        self.assertEqual(complete("kst", "kst -k "), "all sdt_i misc_i pdts_u pat_pmt pcr_u")
        self.assertEqual(complete("kst", "kst -k pcr_u:pd"), "pdts_u")
        self.assertEqual(complete("kst", "kst --track=pcr_u,pa"), "pcr_u,pat_pmt")
        self.assertEqual(complete("kst", "kst -i r"), "rtp://@")
        self.assertEqual(complete("kst", "kst -t "), "2:1000")
        self.assertEqual(complete("kst", "kst --ca"), "--cachesz")
        self.assertEqual(complete("kst", "kst -q -"), "-i --source -S --srctag -N --nid -C --config -l "
                         "--logfile -a --alertlog -L --level -E --cachesz -t --tail -m --mcastif -k --track "
                         "-A --analyze -H --http10 -T --term -q --quiet -V --version -h --help --options")
        self.assertEqual(complete("lardcat", "lardcat "), "list cat --help")
        self.assertEqual(complete("kst-web", "kst-web "), "-c")

    def test_a_read_only_destdir_stops_the_install_with_the_reason(self):
        dest = os.path.join(self.dir, "ro")
        os.mkdir(dest)
        if os.geteuid() == 0:
            # The super-user writes through permissions: a read-only mount
            # in a mount namespace of its own.
            need("unshare")
            probe = subprocess.run(["unshare", "-m", "true"], capture_output=True, timeout=30)
            if probe.returncode != 0:
                self.skipTest("no mount namespace here: " + probe.stderr.decode(errors="replace"))
            r = subprocess.run(["unshare", "-m", "sh", "-c", 'mount --bind -o ro "$1" "$1" && shift && exec "$@"',
                                "-", dest, CMAKE, "--install", BUILD, "--prefix", "/usr/local"],
                               capture_output=True, text=True, timeout=120, env=dict(os.environ, DESTDIR=dest))
        else:
            os.chmod(dest, 0o555)
            r = install(dest, "/usr/local")
        self.assertNotEqual(r.returncode, 0)
        lines = [l for l in r.stderr.splitlines() if l.strip()]
        self.assertEqual(lines[0], f"kst: cannot install into {dest}/usr/local: {dest} is read-only or not writable")
        self.assertEqual(lines[-1].strip(), "kst: nothing was installed")
        self.assertEqual(os.listdir(dest), [])


if __name__ == "__main__":
    unittest.main()
