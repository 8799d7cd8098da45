"""The command line end to end: what each option does to the settings in
force, the exact refusals, and the order in which the configuration file and
the options are applied. Every run starts in a fresh directory, so that no
./kst.conf is found unless a test puts one there."""
import os
import pwd
import grp
import shutil
import signal
import subprocess
import unittest

from kstlib import (KST, KstTestCase, TcpFeed, messages, read_text, run_kst, try_open_writer, wait_for)

SRC = "file:///dev/null"

USAGE_BODY = (
    "Usage: kst -i {source} OPTIONS \n\n"
    "Parameters:\n"
    "  -i|--source   {URL}         = source stream URL\n"
    "  -S|--srctag   {tag}         = source tag to use in analyzer\n"
    "Options:\n"
    "  -N|--nid      {num}         = numeric ID (>=0) for the source [0]\n"
    "  -C|--config   {path}        = config file\n"
    "  -l|--logfile  {path}        = log file\n"
    "  -a|--alertlog {path}        = alert log file\n"
    "  -L|--level    {level}       = log level: crit|err|norm|warn|info|debug [info]\n"
    "  -E|--cachesz  {mb}          = cache size in Mb [8]\n"
    "  -t|--tail     {mb}:{ms}     = tail size/time in Mb/ms [2:500]\n"
    "  -m|--mcastif  {name}        = multicast interface name [all]\n"
    "  -R|--minread  {nbytes}      = number of bytes to be vacant [4096]\n"
    "  -D|--snapdir  {directory}   = directory for snapshot files [.]\n"
    "  -x|--snapfx   {prefix}      = prefix for snapshot files [snap]\n"
    "  -k|--track    {o1}:{o2}..   = specify tracking option(s) []\n"
    "  -A|--analyze  {param}=val   = specify analyzer option/setting\n"
    "  -H|--http10                 = use HTTP/1.0 to avoid chunked output\n"
    "  -q|--quiet                  = send no output to terminal\n"
    "  -T|--term                   = run with output to screen/TTY\n"
    "  -V|--version                = output application's version\n"
    "  -h|?|--help                 = output this option guide\n\n"
)

# The build block and the closing line; the sentence's wording is free
# beyond naming the tool and the family.
USAGE_TAIL_RE = r"\A----\n[^\n]+ \[-ggdb3\]\n----\n\nkst [^\n]*Morvane[^\n]*\n\n\Z"

TRACK_FLAGS = ("sdt_ignore", "misc_ignore", "pdts_update", "pat_pmt_pkt", "pcr_update")


def conf_text(log_file=None, runtime="", extra=""):
    """A minimal kst.conf: the two required groups, syslog off."""
    log = 'enable_syslog = false;'
    if log_file is not None:
        log += f' file = "{log_file}";'
    return f"kst = {{ log = {{ {log} }}; runtime = {{ {runtime} }}; {extra} }};\n"


def track_flags(report):
    """The five tracking flags as the configuration report shows them."""
    flags = {}
    for name in TRACK_FLAGS:
        prefix = f"\tT:{name}:"
        line = [l for l in report.splitlines() if l.startswith(prefix)]
        flags[name] = line[0].split()[-1] if line else None
    return flags


def non_debug(text):
    """The lines of the text that are not DEBUG lines of the logger."""
    return [l for l in text.splitlines() if "(DBG)  " not in l]


class OptionsTestCase(KstTestCase):
    def run_here(self, args, env=None, timeout=60):
        return run_kst(args, timeout=timeout, env=env, cwd=self.dir)

    def popen_here(self, args, cmd_prefix=()):
        p = subprocess.Popen(list(cmd_prefix) + [KST] + args, stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, text=True, errors="replace", cwd=self.dir)
        self.procs.append(p)
        return p

    def write_conf(self, text, name="kst.conf"):
        path = self.path(name)
        with open(path, "w") as f:
            f.write(text)
        return path

    def identity(self):
        r = run_kst(["-V"], cwd=self.dir)
        self.assertEqual(r.returncode, 1)
        self.assertTrue(r.stderr.startswith("kst ") and r.stderr.endswith("\n"), r.stderr)
        self.assertEqual(r.stderr.count("\n"), 1)
        return r.stderr[:-1]

    def assertUsage(self, text, before=""):
        """text is exactly `before`, then the whole usage."""
        head = before + self.identity() + "\n" + USAGE_BODY
        self.assertEqual(text[:len(head)], head)
        self.assertRegex(text[len(head):], USAGE_TAIL_RE)

    def assertRefused(self, r, line):
        self.assertEqual(r.returncode, 1, r.stderr)
        self.assertEqual(r.stdout, "")
        self.assertEqual(r.stderr, line)

    def assertStarted(self, r):
        """The command line passed: the run reached its start line."""
        self.assertTrue(any(m.startswith("(NRM) kst ") and " STARTING. PID=" in m
                            for m in messages(r.stderr)), r.stderr)


class UsageTest(OptionsTestCase):
    def test_no_argument_gives_the_whole_usage(self):
        r = self.run_here([])
        self.assertEqual(r.returncode, 1)
        self.assertEqual(r.stdout, "")
        self.assertUsage(r.stderr)

    def test_every_help_form_gives_the_usage_and_exit_1(self):
        for opt in ("-h", "-?", "--help", "--options"):
            r = self.run_here([opt])
            self.assertEqual(r.returncode, 1, opt)
            self.assertEqual(r.stdout, "", opt)
            self.assertUsage(r.stderr)

    def test_help_stops_before_anything_is_applied(self):
        log = self.path("h.log")
        r = self.run_here(["-T", "-l", log, "-E", "0", "-i", SRC, "-h"])
        self.assertEqual(r.returncode, 1)
        self.assertUsage(r.stderr)
        self.assertFalse(os.path.exists(log))

    def test_options_listed_in_the_usage_but_unknown_to_the_parser(self):
        for opt, val in (("-R", "4096"), ("-D", "x"), ("-x", "y")):
            r = self.run_here(["-T", opt, val, "-i", SRC])
            self.assertEqual(r.returncode, 1, opt)
            self.assertEqual(r.stdout, "")
            self.assertUsage(r.stderr, before=f"{KST}: invalid option -- '{opt[1]}'\n")

    def test_long_forms_of_the_listed_options_are_unknown_too(self):
        for opt in ("--minread", "--snapdir", "--snapfx"):
            r = self.run_here(["-T", opt, "1", "-i", SRC])
            self.assertEqual(r.returncode, 1, opt)
            self.assertUsage(r.stderr, before=f"{KST}: unrecognized option '{opt}'\n")

    def test_a_missing_argument_gives_the_usage(self):
        r = self.run_here(["-T", "-i"])
        self.assertEqual(r.returncode, 1)
        self.assertUsage(r.stderr, before=f"{KST}: option requires an argument -- 'i'\n")

    def test_version_ahead_of_a_bad_option_exits_at_once(self):
        ident = self.identity()
        for args in (["-V", "-Z"], ["--version", "-R", "1"], ["-V", "-i", SRC, "-E", "0"]):
            r = self.run_here(args)
            self.assertRefused(r, ident + "\n")

    def test_a_bad_option_ahead_of_version_gives_the_usage(self):
        r = self.run_here(["-Z", "-V"])
        self.assertEqual(r.returncode, 1)
        self.assertUsage(r.stderr, before=f"{KST}: invalid option -- 'Z'\n")

    def test_help_ahead_of_version_gives_the_usage(self):
        r = self.run_here(["-h", "-V"])
        self.assertEqual(r.returncode, 1)
        self.assertUsage(r.stderr)


class SourceTest(OptionsTestCase):
    def test_source_given_twice_the_last_counts(self):
        r = self.run_here(["-T", "-i", "file:///nowhere/first.ts", "--source", SRC])
        self.assertIn("\tURL            = file:///dev/null\n", r.stderr)
        self.assertIn("(NRM) Reading (STM) from fd4 [file:///dev/null]", messages(r.stderr))
        self.assertNotIn("first.ts", r.stderr)

    def test_source_url_is_cut_to_127_characters(self):
        url = "file:///" + "u" * 200
        r = self.run_here(["-T", "-i", url])
        self.assertIn(f"\tURL            = {url[:127]}\n", r.stderr)
        self.assertNotIn(url[:128], r.stderr)

    def test_missing_source_is_refused_first(self):
        r = self.run_here(["-T", "-A", "on", "-E", "1"])
        self.assertEqual(r.returncode, 1)
        self.assertEqual(non_debug(r.stderr), [f"Source URL must be specified, run {KST} --help for options"])

    def test_http10_and_multicast_interface(self):
        r = self.run_here(["-T", "-H", "-m", "abcdefghijklmnopqrst", "-i", SRC])
        self.assertIn("\tHTTP/1.0 GET   = yes\n", r.stderr)
        self.assertIn("\tMulticast ifc  = abcdefghijklmno\n", r.stderr)
        r = self.run_here(["-T", "-i", SRC])
        self.assertIn("\tHTTP/1.0 GET   = no\n", r.stderr)
        self.assertIn("\tMulticast ifc  = all\n", r.stderr)


class CacheSizeTest(OptionsTestCase):
    def test_zero_and_2048_are_refused(self):
        self.assertRefused(self.run_here(["-T", "-E", "0", "-i", SRC]), "Invalid cache size=0 (0..2048)\n")
        self.assertRefused(self.run_here(["-T", "-E", "2048", "-i", SRC]), "Invalid cache size=2048 (0..2048)\n")
        self.assertRefused(self.run_here(["-T", "--cachesz=-3", "-i", SRC]), "Invalid cache size=-3 (0..2048)\n")
        self.assertRefused(self.run_here(["-T", "-E", "lots", "-i", SRC]), "Invalid cache size=lots (0..2048)\n")

    def test_2047_passes(self):
        r = self.run_here(["-T", "-E", "2047", "-i", SRC])
        self.assertNotIn("Invalid cache size", r.stderr)
        self.assertIn("\tSize           = 2047 Mb\n", r.stderr)
        self.assertStarted(r)

    def test_1_passes_with_the_default_reserve(self):
        r = self.run_here(["-T", "-E", "1", "-i", SRC])
        self.assertIn("\tSize           = 1 Mb\n", r.stderr)
        self.assertIn("\tMin vacant     = 4096 bytes\n", r.stderr)
        self.assertStarted(r)

    def test_1_is_refused_when_the_reserve_exceeds_a_quarter_of_it(self):
        self.write_conf(conf_text(extra="cache = { min_bytes_left = 300000; };"))
        r = self.run_here(["-T", "-E", "1", "-i", SRC])
        self.assertEqual(r.returncode, 1)
        self.assertEqual(messages(r.stderr), ["(DBG) Using config at [./kst.conf]",
                                              "-R value (1400) should be >= 300000 and less than 262144"])
        self.assertTrue(r.stderr.endswith("\n-R value (1400) should be >= 300000 and less than 262144\n"))

    def test_a_reserve_of_exactly_a_quarter_passes(self):
        self.write_conf(conf_text(extra="cache = { min_bytes_left = 262144; };"))
        r = self.run_here(["-T", "-E", "1", "-i", SRC])
        self.assertIn("\tMin vacant     = 262144 bytes\n", r.stderr)
        self.assertStarted(r)
        self.write_conf(conf_text(extra="cache = { min_bytes_left = 262145; };"))
        r = self.run_here(["-T", "-E", "1", "-i", SRC])
        self.assertEqual(r.returncode, 1)
        self.assertEqual(non_debug(r.stderr), ["-R value (1400) should be >= 262145 and less than 262144"])

    def test_a_reserve_below_the_minimum_is_refused(self):
        self.write_conf(conf_text(extra="cache = { min_bytes_left = 1399; };"))
        r = self.run_here(["-T", "-i", SRC])
        self.assertEqual(r.returncode, 1)
        self.assertEqual(non_debug(r.stderr), ["-R value (1400) should be >= 1399 and less than 2097152"])
        self.write_conf(conf_text(extra="cache = { min_bytes_left = 1400; };"))
        r = self.run_here(["-T", "-i", SRC])
        self.assertIn("\tMin vacant     = 1400 bytes\n", r.stderr)
        self.assertStarted(r)

    def test_a_reserve_of_zero_takes_the_default(self):
        self.write_conf(conf_text(extra="cache = { min_bytes_left = 0; };"))
        r = self.run_here(["-T", "-i", SRC])
        self.assertIn("\tMin vacant     = 4096 bytes\n", r.stderr)
        self.assertStarted(r)

    def test_the_option_goes_over_the_file(self):
        self.write_conf(conf_text(extra="cache = { size_mb = 1; min_bytes_left = 300000; };"))
        r = self.run_here(["-T", "-i", SRC])
        self.assertEqual(non_debug(r.stderr), ["-R value (1400) should be >= 300000 and less than 262144"])
        r = self.run_here(["-T", "-E", "2", "-i", SRC])
        self.assertIn("\tSize           = 2 Mb\n", r.stderr)
        self.assertStarted(r)

    def test_zero_cache_or_tail_from_the_file_is_refused(self):
        line = f"Cache and tail sizes must be specified, run {KST} --help for options"
        self.write_conf(conf_text(extra="cache = { size_mb = 0; };"))
        r = self.run_here(["-T", "-i", SRC])
        self.assertEqual(r.returncode, 1)
        self.assertEqual(non_debug(r.stderr), [line])
        self.write_conf(conf_text(extra="cache = { tail_size_mb = 0; };"))
        r = self.run_here(["-T", "-i", SRC])
        self.assertEqual(r.returncode, 1)
        self.assertEqual(non_debug(r.stderr), [line])
        # A zero size on the command line means the largest tail instead.
        r = self.run_here(["-T", "-t", "0:5", "-i", SRC])
        self.assertIn("\tTail           = 682/5 Mb/ms\n", r.stderr)
        self.assertStarted(r)


class TailTest(OptionsTestCase):
    def test_zero_size_is_the_largest_tail(self):
        r = self.run_here(["-T", "-t", "0:100", "-i", SRC])
        self.assertIn("\tTail           = 682/100 Mb/ms\n", r.stderr)
        self.assertStarted(r)

    def test_above_the_limit_is_refused(self):
        self.assertRefused(self.run_here(["-T", "-t", "683:0", "-i", SRC]),
                           "Cache size out of range: 683 (1..682)\n")

    def test_negative_time_becomes_zero(self):
        r = self.run_here(["-T", "--tail", "682:-5", "-i", SRC])
        self.assertIn("\tTail           = 682/0 Mb/ms\n", r.stderr)
        self.assertStarted(r)

    def test_missing_colon_is_refused(self):
        self.assertRefused(self.run_here(["-T", "-t", "5", "-i", SRC]), "Missing colon in -t value: 5\n")

    def test_default_tail(self):
        r = self.run_here(["-T", "-i", SRC])
        self.assertIn("\tTail           = 2/1000 Mb/ms\n", r.stderr)


class TrackAndAnalyzeTest(OptionsTestCase):
    def analysed(self, *opts):
        return self.run_here(["-T", "-S", "tag", "-A", "on"] + list(opts) + ["-i", SRC])

    def test_track_words(self):
        r = self.analysed("-k", "pcr_update:pat_pmt_pkt")
        self.assertEqual(track_flags(r.stderr), {"sdt_ignore": "no", "misc_ignore": "no", "pdts_update": "no",
                                                 "pat_pmt_pkt": "yes", "pcr_update": "yes"})

    def test_track_words_are_case_sensitive(self):
        r = self.analysed("-k", "PCR_U")
        self.assertEqual(set(track_flags(r.stderr).values()), {"no"})
        self.assertStarted(r)

    def test_track_all_in_any_case(self):
        r = self.analysed("--track", "ALL")
        self.assertEqual(set(track_flags(r.stderr).values()), {"yes"})

    def test_track_twice_keeps_only_the_second(self):
        r = self.analysed("-k", "pcr_update:pat_pmt_pkt", "-k", "sdt_i")
        self.assertEqual(track_flags(r.stderr), {"sdt_ignore": "yes", "misc_ignore": "no", "pdts_update": "no",
                                                 "pat_pmt_pkt": "no", "pcr_update": "no"})

    def test_track_drops_what_the_file_set(self):
        self.write_conf(conf_text(extra='stream_analyzer = { enabled = true; source_tag = "f"; track = true;'
                                        ' sdt_ignore = true; misc_ignore = true; pcr_update = true; };'))
        r = self.run_here(["-T", "-i", SRC])
        self.assertEqual(track_flags(r.stderr)["sdt_ignore"], "yes")
        r = self.run_here(["-T", "-k", "pdts_u", "-i", SRC])
        self.assertEqual(track_flags(r.stderr), {"sdt_ignore": "no", "misc_ignore": "no", "pdts_update": "yes",
                                                 "pat_pmt_pkt": "no", "pcr_update": "no"})

    def test_analyze_twice_applies_both(self):
        r = self.analysed("-A", "skipped_pkts=5", "--analyze", "pcr_freq=40")
        self.assertIn("\tskipped packets:       5\n", r.stderr)
        self.assertIn("\tPCR frequency:         40 (ms)\n", r.stderr)
        msgs = messages(r.stderr)
        self.assertIn("(DBG) analyzer_opt: skipped_pkts=5 OK", msgs)
        self.assertIn("(DBG) analyzer_opt: pcr_freq=40 OK", msgs)
        self.assertStarted(r)

    def test_analyze_each_key(self):
        r = self.analysed("-A", "skipped_pkts=3", "-A", "pdts_delta=250", "-A", "pcr_delta=90", "-A", "pcr_freq=45")
        for line in ("\tskipped packets:       3\n", "\tPTS/DTS delta:         250 (ms)\n",
                     "\tPCR delta:             90 (ms)\n", "\tPCR frequency:         45 (ms)\n"):
            self.assertIn(line, r.stderr)

    def test_analyze_negative_value_is_refused(self):
        r = self.analysed("-A", "skipped_pkts=-1")
        self.assertEqual(r.returncode, 1)
        self.assertEqual(messages("\n".join(non_debug(r.stderr))),
                         ["(ERR) analyzer_opt: invalid parameter value: skipped_pkts=-1/-1"])
        self.assertFalse(any("STARTING" in m for m in messages(r.stderr)))

    def test_analyze_unknown_key_passes_and_changes_nothing(self):
        plain = self.analysed()
        r = self.analysed("-A", "foo=1")
        self.assertIn("(DBG) analyzer_opt: foo=1 OK", messages(r.stderr))
        self.assertStarted(r)

        def analysis_block(text):
            return text[text.index("Analysis: "):text.rindex("-----------------------------------")]
        self.assertEqual(analysis_block(r.stderr), analysis_block(plain.stderr))

    def test_analyze_without_equals_is_refused(self):
        r = self.run_here(["-T", "-A", "bogus", "-i", SRC])
        self.assertEqual(r.returncode, 1)
        self.assertEqual(messages(r.stderr), ["(ERR) analyzer_opt: invalid option string format: bogus"])


class SourceTagTest(OptionsTestCase):
    def tag_line(self):
        return f"Source tag (-S) must be specified, run {KST} --help for options"

    def test_tag_demanded_when_analysis_is_on(self):
        r = self.run_here(["-T", "-A", "on", "-i", SRC])
        self.assertEqual(r.returncode, 1)
        self.assertEqual(non_debug(r.stderr), [self.tag_line()])

    def test_no_tag_needed_with_analysis_off(self):
        for args in (["-A", "off"], ["-A", "on", "-A", "off"], []):
            r = self.run_here(["-T"] + args + ["-i", SRC])
            self.assertNotIn("Source tag", r.stderr, args)
            self.assertNotIn("Analysis:", r.stderr, args)
            self.assertStarted(r)

    def test_analysis_on_in_the_file_is_switched_off_by_the_option(self):
        self.write_conf(conf_text(extra="stream_analyzer = { enabled = true; };"))
        r = self.run_here(["-T", "-i", SRC])
        self.assertEqual(r.returncode, 1)
        self.assertEqual(non_debug(r.stderr), [self.tag_line()])
        r = self.run_here(["-T", "-A", "DISABLE", "-i", SRC])
        self.assertNotIn("Source tag", r.stderr)
        self.assertNotIn("Analysis:", r.stderr)
        self.assertStarted(r)

    def test_tag_is_cut_to_63_characters(self):
        tag = "".join(chr(ord("a") + i % 26) for i in range(80))
        r = self.run_here(["-T", "-A", "on", "--srctag", tag, "-i", SRC])
        self.assertIn(f"\tsource:                [{tag[:63]}]\n", r.stderr)
        self.assertStarted(r)


class LogPathTest(OptionsTestCase):
    def long_path(self, length, name_start="L"):
        base = self.dir + "/" + name_start
        return base + "x" * (length - len(base))

    def test_log_path_of_128_is_refused(self):
        path = self.long_path(128)
        self.assertEqual(len(path), 128)
        self.assertRefused(self.run_here(["-T", "-l", path, "-i", SRC]),
                           "Log path is too long (128 bytes), max=128 bytes.\n")
        self.assertEqual(os.listdir(self.dir), [])

    def test_alert_log_path_of_128_is_refused(self):
        path = self.long_path(128, "A")
        self.assertRefused(self.run_here(["-T", "--alertlog", path, "-i", SRC]),
                           "Alert log path is too long (128 bytes), max=128 bytes.\n")
        self.assertEqual(os.listdir(self.dir), [])

    def test_paths_of_127_pass(self):
        log = self.long_path(127)
        alert = self.long_path(127, "A")
        r = self.run_here(["-T", "-q", "-l", log, "-a", alert, "-i", SRC])
        self.assertEqual(r.stderr, "")
        self.assertTrue(os.path.exists(log))
        self.assertTrue(os.path.exists(alert))
        self.assertIn("STARTING. PID=", read_text(log))

    def test_unknown_level_is_refused(self):
        self.assertRefused(self.run_here(["-T", "-L", "bogus", "-i", SRC]), "Invalid log level: bogus\n")
        self.assertRefused(self.run_here(["-T", "--level=panic", "-i", SRC]), "Invalid log level: panic\n")

    def test_level_words_in_any_case(self):
        r = self.run_here(["-T", "-L", "DeBuG", "-i", SRC])
        self.assertIn("(DBG) runtime_setup: OK", messages(r.stderr))
        r = self.run_here(["-T", "-L", "Critical", "-i", SRC])
        self.assertNotIn("(NRM)", r.stderr)
        self.assertNotIn("(INF)", r.stderr)

    def test_instance_number_goes_into_both_paths(self):
        r = self.run_here(["-T", "-q", "-N", "7", "-l", "k{N}.log", "-a", "a{N}.log", "-i", SRC])
        self.assertEqual(r.stderr, "")
        self.assertEqual(sorted(os.listdir(self.dir)), ["a7.log", "k7.log"])
        self.assertIn("Instance: 7\n", read_text(self.path("k7.log")))

    def test_every_macro_is_replaced(self):
        r = self.run_here(["-T", "-q", "--nid=12", "-l", "k{N}-{N}.log", "-i", SRC])
        self.assertEqual(r.stderr, "")
        self.assertEqual(os.listdir(self.dir), ["k12-12.log"])

    def test_instance_zero_keeps_the_macro_literally(self):
        r = self.run_here(["-T", "-q", "-N", "0", "-l", "k{N}.log", "-a", "a{N}.log", "-i", SRC])
        self.assertEqual(r.stderr, "")
        self.assertEqual(sorted(os.listdir(self.dir)), ["a{N}.log", "k{N}.log"])
        r = self.run_here(["-T", "-q", "-l", "m{N}.log", "-i", SRC])
        self.assertTrue(os.path.exists(self.path("m{N}.log")))

    def test_instance_number_may_grow_the_path_to_127(self):
        path = self.long_path(126 - 3) + "{N}"
        self.assertEqual(len(path), 126)
        r = self.run_here(["-T", "-q", "-N", "1000", "-l", path, "-i", SRC])
        self.assertEqual(r.stderr, "")
        grown = path.replace("{N}", "1000")
        self.assertEqual(len(grown), 127)
        self.assertTrue(os.path.exists(grown), os.listdir(self.dir))


class QuietTest(OptionsTestCase):
    def test_quiet_holds_without_a_file(self):
        log = self.path("q.log")
        r = self.run_here(["-T", "-q", "-l", log, "-i", SRC])
        self.assertEqual(r.stderr, "")
        text = read_text(log)
        self.assertIn("\tflags: [non-daemon] [quiet]\n", text)
        self.assertIn("Reading (STM) from fd5 [file:///dev/null]", text)

    def test_without_quiet_the_log_is_mirrored(self):
        log = self.path("m.log")
        r = self.run_here(["-T", "-l", log, "-i", SRC])
        self.assertIn("\tflags: [non-daemon]\n", r.stderr)
        self.assertIn("(NRM) Reading (STM) from fd5 [file:///dev/null]", messages(r.stderr))

    def test_the_files_quiet_false_overrides_the_option(self):
        for runtime in ("quiet = false;", ""):
            self.write_conf(conf_text(log_file="c.log", runtime=runtime))
            r = self.run_here(["-T", "-q", "-i", SRC])
            self.assertIn("\tflags: [non-daemon]\n", r.stderr, runtime)
            self.assertNotIn("[quiet]", r.stderr)
            self.assertIn("(NRM) Reading (STM) from fd5 [file:///dev/null]", messages(r.stderr))
            self.assertIn("\tflags: [non-daemon]\n", read_text(self.path("c.log")))
            os.unlink(self.path("c.log"))

    def test_the_files_quiet_true_holds_without_the_option(self):
        self.write_conf(conf_text(log_file="c.log", runtime="quiet = true;"))
        r = self.run_here(["-T", "-i", SRC])
        self.assertEqual(messages(r.stderr), ["(DBG) Using config at [./kst.conf]"])
        self.assertIn("\tflags: [non-daemon] [quiet]\n", read_text(self.path("c.log")))


class ConfigPathTest(OptionsTestCase):
    def test_no_file_at_all_is_no_error(self):
        r = self.run_here(["-T", "-i", SRC])
        self.assertNotIn("Using config", r.stderr)
        self.assertStarted(r)

    def test_the_file_in_the_working_directory_is_found(self):
        self.write_conf(conf_text(log_file="found.log", runtime="quiet = true;"))
        r = self.run_here(["-T", "-q", "-i", SRC])
        self.assertEqual(messages(r.stderr), ["(DBG) Using config at [./kst.conf]"])
        self.assertTrue(os.path.exists(self.path("found.log")))

    def test_config_option_replaces_the_search_and_the_last_wins(self):
        self.write_conf("this is not a configuration\n")
        one = self.write_conf(conf_text(log_file="one.log", runtime="quiet = true;"), "one.conf")
        two = self.write_conf(conf_text(log_file="two.log", runtime="quiet = true;"), "two.conf")
        r = self.run_here(["-T", "-q", "-C", one, "--config", two, "-i", SRC])
        self.assertEqual(messages(r.stderr), [f"(DBG) Using config at [{two}]"])
        self.assertTrue(os.path.exists(self.path("two.log")))
        self.assertFalse(os.path.exists(self.path("one.log")))

    def test_a_file_that_fails_to_load_stops_the_start(self):
        self.write_conf('kst = { log = { file = "never.log"; }; };\n')
        r = self.run_here(["-T", "-i", SRC])
        self.assertEqual(r.returncode, 1)
        self.assertFalse(os.path.exists(self.path("never.log")))
        self.assertFalse(any("STARTING" in m for m in messages(r.stderr)))

    def test_options_go_over_the_file(self):
        self.write_conf(conf_text(log_file="file.log", runtime="quiet = true;"))
        r = self.run_here(["-T", "-l", "option.log", "-i", SRC])
        self.assertTrue(os.path.exists(self.path("option.log")))
        self.assertFalse(os.path.exists(self.path("file.log")))
        self.assertIn("\tpath   = option.log\n", read_text(self.path("option.log")))


class NothingCreatedTest(OptionsTestCase):
    """A refused command line or file leaves no file and no shared memory."""

    def refused_leaves_nothing(self, args, conf=None):
        if conf is not None:
            self.write_conf(conf)
        before = sorted(os.listdir(self.dir))
        p = self.popen_here(args)
        _, err = p.communicate(timeout=30)
        self.assertEqual(p.returncode, 1, err)
        self.assertEqual(sorted(os.listdir(self.dir)), before, args)
        self.assertFalse(any(n.startswith(f"mmr.{p.pid}.") for n in os.listdir("/dev/shm")))
        self.assertFalse(any("STARTING" in m for m in messages(err)), err)
        return err

    def test_refused_options_create_nothing(self):
        logs = ["-l", "k.log", "-a", "a.log"]
        for bad in (["-E", "0"], ["-E", "2048"], ["-t", "5"], ["-t", "683:0"], ["-L", "bogus"],
                    ["-A", "skipped_pkts=-1"], ["-A", "on"], ["-R", "4096"]):
            self.refused_leaves_nothing(["-T"] + logs + bad + ["-i", SRC])
        self.refused_leaves_nothing(["-T"] + logs)

    def test_refused_file_creates_nothing(self):
        self.refused_leaves_nothing(["-T", "-i", SRC], conf='kst = { log = { file = "never.log"; }; };\n')
        self.refused_leaves_nothing(["-T", "-E", "1", "-i", SRC],
                                    conf=conf_text(log_file="never.log", extra="cache = { min_bytes_left = 300000; };"))


class ForegroundTest(OptionsTestCase):
    """Only the super-user may become a daemon."""

    def test_a_non_root_user_stays_in_the_foreground(self):
        if os.geteuid() != 0:
            self.skipTest("needs root to run kst as another user")
        if shutil.which("setpriv") is None:
            self.skipTest("setpriv is not installed")
        user = pwd.getpwnam("nobody")
        group = grp.getgrgid(user.pw_gid).gr_name
        os.chmod(self.dir, 0o777)
        self.write_conf(conf_text(log_file="fg.log", runtime="non_daemon = false;"))
        feed = TcpFeed()
        log = self.path("fg.log")
        p = self.popen_here(["-i", feed.url],
                            cmd_prefix=["setpriv", f"--reuid={user.pw_uid}", f"--regid={user.pw_gid}",
                                        "--clear-groups"])
        w = feed.accept()
        self.assertIsNotNone(w, "kst never connected")
        try:
            self.awaitLog(log, "Reading (STM)")
            # A daemon's parent would be gone by now; this process holds the source.
            self.assertIsNone(p.poll(), f"started process ended (group {group})")
            text = read_text(log)
            self.assertIn(f"Runtime pid={p.pid} uid/gid = {user.pw_uid}/{user.pw_gid} running in []", text)
            self.assertIn("\tflags: [non-daemon]\n", text)
            p.send_signal(signal.SIGTERM)
            _, err = p.communicate(timeout=10)
            self.assertEqual(p.returncode, 0)
        finally:
            os.close(w)
        msgs = messages(read_text(log))
        self.assertRegex(msgs[-1], r"EXIT\(0\)\. PID=%d$" % p.pid)
        self.assertFalse(any(n.startswith(f"mmr.{p.pid}.") for n in os.listdir("/dev/shm")))
        # Not quiet and in the foreground with a log file: mirrored on the console.
        self.assertIn("Reading (STM) from fd5", err)


if __name__ == "__main__":
    unittest.main()
