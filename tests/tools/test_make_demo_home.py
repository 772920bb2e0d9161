#!/usr/bin/env python3
"""Checks tools/make-demo-home: repeatable from its seed, exact in its count,
truthful in its summary, and honest about what it claims to contain."""

import datetime
import glob
import hashlib
import os
import plistlib
import re
import shutil
import stat
import subprocess
import sys
import tempfile
import unittest
from collections import defaultdict

TOOL = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "make-demo-home")
NOW = "2026-03-01T12:00:00"
NOW_SECONDS = int(datetime.datetime(2026, 3, 1, 12, tzinfo=datetime.timezone.utc).timestamp())
FILES = 400
SLICE = 16 * 1024


def run(*args):
    return subprocess.run([sys.executable, TOOL, *args], capture_output=True, text=True)


def walk(root):
    """Every entry under root by its relative path, with its lstat."""
    out = {}
    for folder, dirs, files in os.walk(root):
        for name in dirs + files:
            path = os.path.join(folder, name)
            out[os.path.relpath(path, root)] = os.lstat(path)
    return out


def xattrs(path):
    try:
        return {k: os.getxattr(path, k, follow_symlinks=False) for k in sorted(os.listxattr(path, follow_symlinks=False))}
    except OSError:
        return {}


def manifest(root):
    """Everything a second run must repeat: kinds, sizes, times, links,
    extended attributes, which names share an inode, and the bytes. Times
    are read before any content, since reading may move access times."""
    entries = walk(root)
    rows, inodes = {}, defaultdict(list)
    for rel, st in sorted(entries.items()):
        path = os.path.join(root, rel)
        if stat.S_ISLNK(st.st_mode):
            rows[rel] = ("link", os.readlink(path), st.st_mtime_ns)
        elif stat.S_ISDIR(st.st_mode):
            rows[rel] = ("folder", st.st_mtime_ns)
        else:
            rows[rel] = ("file", st.st_size, st.st_mtime_ns, st.st_atime_ns, xattrs(path))
            inodes[st.st_ino].append(rel)
    for rel in rows:
        if rows[rel][0] == "file":
            rows[rel] += (hashlib.sha256(read(root, rel)).hexdigest(),)
    return rows, sorted(sorted(names) for names in inodes.values() if len(names) > 1)


def regular_files(root):
    return {rel: st for rel, st in walk(root).items() if stat.S_ISREG(st.st_mode)}


def read(root, rel):
    """The bytes, without moving the access time the tool set (where the
    system lets the file's owner ask for that)."""
    path = os.path.join(root, rel)
    try:
        fd = os.open(path, os.O_RDONLY | os.O_NOATIME)
    except PermissionError:
        fd = os.open(path, os.O_RDONLY)
    with os.fdopen(fd, "rb") as f:
        return f.read()


def differing_offsets(a, b, most=2):
    """Offsets where two equal-length byte strings differ, up to `most`."""
    found = []
    for start in range(0, len(a), 4096):
        if a[start : start + 4096] != b[start : start + 4096]:
            found += [k for k in range(start, min(start + 4096, len(a))) if a[k] != b[k]]
            if len(found) >= most:
                return found[:most]
    return found


def top(rel):
    return rel.split("/")[0]


def supports_user_xattrs(folder):
    probe = os.path.join(folder, "probe")
    open(probe, "w").close()
    try:
        os.setxattr(probe, "user.probe", b"1")
        return True
    except OSError:
        return False
    finally:
        os.unlink(probe)


class DemoHome(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.mkdtemp(prefix="demo-home-test-")
        cls.root = os.path.join(cls.scratch, "a")
        cls.made = run(cls.root, "--files", str(FILES), "--seed", "7", "--now", NOW)
        if cls.made.returncode != 0:
            raise AssertionError(cls.made.stderr)
        cls.files = regular_files(cls.root)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.scratch)

    def test_same_seed_and_date_repeat_the_tree_and_another_seed_does_not(self):
        again = os.path.join(self.scratch, "again")
        other = os.path.join(self.scratch, "other")
        self.assertEqual(run(again, "--files", str(FILES), "--seed", "7", "--now", NOW).returncode, 0)
        self.assertEqual(run(other, "--files", str(FILES), "--seed", "8", "--now", NOW).returncode, 0)
        first = manifest(self.root)
        self.assertEqual(first, manifest(again))
        other_rows, _ = manifest(other)
        self.assertNotEqual(set(first[0]), set(other_rows))

    def test_makes_the_files_asked_for_and_the_summary_tells_the_truth(self):
        self.assertEqual(len(self.files), FILES)
        entries = walk(self.root)
        folders = sum(stat.S_ISDIR(st.st_mode) for st in entries.values())
        links = sum(stat.S_ISLNK(st.st_mode) for st in entries.values())
        unique = {st.st_ino: st.st_size for st in self.files.values()}
        summary = re.match(
            r"Made ([\d,]+) files \((\d+) of them hard links\), (\d+) symbolic links and ([\d,]+) folders, "
            r"([\d.]+) MB, in (.+) \(seed 7\)\.$", self.made.stdout.strip())
        self.assertIsNotNone(summary, self.made.stdout)
        self.assertEqual(int(summary[1].replace(",", "")), FILES)
        self.assertEqual(int(summary[2]), len(self.files) - len(unique))
        self.assertEqual(int(summary[3]), links)
        self.assertEqual(int(summary[4].replace(",", "")), folders)
        self.assertAlmostEqual(float(summary[5]), sum(unique.values()) / 1e6, delta=0.051)
        self.assertEqual(summary[6], self.root)

    def test_copies_are_byte_identical_across_folders(self):
        by_content = defaultdict(set)
        for rel, st in self.files.items():
            if st.st_size > 0:
                by_content[hashlib.sha256(read(self.root, rel)).digest()].add((st.st_ino, rel))
        groups = [g for g in by_content.values() if len({ino for ino, _ in g}) > 1]
        across = [g for g in groups if len({top(rel) for _, rel in g}) > 1]
        self.assertGreaterEqual(len(across), 5)
        self.assertTrue(any(len({top(rel) for _, rel in g}) >= 3 for g in groups))
        self.assertTrue(any(min(self.files[rel].st_size for _, rel in g) >= 1_000_000 for g in across))

    def test_same_size_files_differ_where_a_careless_finder_would_not_look(self):
        by_size = defaultdict(list)
        for rel, st in self.files.items():
            if st.st_size >= 64 * 1024 and st.st_nlink == 1:
                by_size[st.st_size].append(rel)
        found = set()
        for size, names in by_size.items():
            middle = max(0, size // 2 - SLICE // 2)
            contents = [read(self.root, rel) for rel in names]
            for i in range(len(contents)):
                for j in range(i + 1, len(contents)):
                    diff = differing_offsets(contents[i], contents[j])
                    if len(diff) != 1:
                        continue
                    at = diff[0]
                    if at == size - 1:
                        found.add("last byte")
                    elif middle <= at < middle + SLICE:
                        found.add("middle")
                    elif SLICE <= at < middle:
                        found.add("outside the sampled slices")
        self.assertEqual(found, {"last byte", "middle", "outside the sampled slices"})

    def test_downloads_carry_the_origins_browsers_record(self):
        if not supports_user_xattrs(self.scratch):
            self.skipTest("this file system takes no user extended attributes")
        hosts, referrers, downloads, marked = set(), 0, 0, 0
        for rel in self.files:
            attrs = xattrs(os.path.join(self.root, rel))
            origin = attrs.get("user.xdg.origin.url", b"").decode()
            if top(rel) == "Downloads":
                downloads += 1
                marked += bool(origin)
            if origin:
                hosts.add(re.sub(r"^blob:", "", origin).partition("//")[2].partition("/")[0])
                referrers += "user.xdg.referrer.url" in attrs
        for host in ("mail.google.com", "outlook.live.com", "files.slack.com", "cdn.discordapp.com", "github.com",
                     "objects.githubusercontent.com", "gitlab.com", "drive.google.com", "www.dropbox.com",
                     "onedrive.live.com", "web.whatsapp.com", "example.org"):
            self.assertIn(host, hosts)
        self.assertGreater(marked, downloads // 2)
        self.assertGreater(referrers, 0)

    def test_cache_places_are_where_the_cleaning_rules_look(self):
        for pattern in ("Library/Caches/Google/AndroidStudio*", "Library/Caches/Google/Chrome",
                        "Library/Caches/com.apple.Safari", "Library/Caches/JetBrains/*", ".cache/huggingface",
                        ".cache/pip", ".npm/_cacache", ".cargo/registry/src", ".cargo/registry/cache",
                        ".gradle/caches", "Library/Developer/Xcode/DerivedData/*",
                        "Library/Logs/DiagnosticReports/*.ips", "Library/Logs/com.apple.*",
                        "Library/Containers/*/Data/Library/Caches/*", "Library/Application Support/*/Code Cache",
                        "Library/Saved Application State/*.savedState", "Downloads/*.dmg", "Downloads/*.pkg",
                        ".Trash/*", "Library/Developer/Xcode/Archives/*/*.xcarchive"):
            self.assertTrue(glob.glob(os.path.join(glob.escape(self.root), pattern)), pattern)
        opened = []
        for info in glob.glob(os.path.join(self.root, "Library/Developer/Xcode/DerivedData/*/info.plist")):
            date = plistlib.loads(read(self.root, info))["LastAccessedDate"]
            opened.append(date.replace(tzinfo=datetime.timezone.utc).timestamp())
        self.assertTrue(any(NOW_SECONDS - t > 30 * 86400 for t in opened))
        self.assertTrue(any(NOW_SECONDS - t < 30 * 86400 for t in opened))

    def test_links_stay_inside_the_home_and_one_in_a_cache_leads_to_user_files(self):
        cache_link_to_user_folder = False
        for rel, st in walk(self.root).items():
            if not stat.S_ISLNK(st.st_mode):
                continue
            target = os.readlink(os.path.join(self.root, rel))
            self.assertFalse(os.path.isabs(target), rel)
            lands = os.path.normpath(os.path.join(os.path.dirname(rel), target))
            self.assertFalse(lands == ".." or lands.startswith("../"), f"{rel} -> {target}")
            in_cache = rel.startswith((".cache/", "Library/Caches/"))
            if in_cache and top(lands) in ("Documents", "Music", "Pictures", "Desktop"):
                cache_link_to_user_folder = True
        self.assertTrue(cache_link_to_user_folder)
        by_inode = defaultdict(list)
        for rel, st in self.files.items():
            by_inode[st.st_ino].append(rel)
        shared = [names for names in by_inode.values() if len(names) > 1]
        self.assertGreaterEqual(len(shared), 3)
        self.assertTrue(any(len({top(n) for n in names}) > 1 for names in shared))

    def test_times_span_two_years_and_screenshot_names_match_their_times(self):
        stamps = {rel: st.st_mtime_ns // 1_000_000_000 for rel, st in self.files.items()}
        for rel, t in stamps.items():
            self.assertLessEqual(t, NOW_SECONDS, rel)
            self.assertGreater(t, NOW_SECONDS - 731 * 86400, rel)
            self.assertGreaterEqual(self.files[rel].st_atime_ns, self.files[rel].st_mtime_ns, rel)
        styles = {
            "Screenshot from %Y-%m-%d %H-%M-%S.png": r"Screenshot from [-\d]+ [-\d]+\.png",
            "Screenshot_%Y%m%d_%H%M%S.png": r"Screenshot_\d{8}_\d{6}\.png",
            "Screenshot %Y-%m-%d at %H.%M.%S.png": r"Screenshot [-\d]+ at [.\d]+\.png",
        }
        ages, seen = [], set()
        for rel, t in stamps.items():
            name = os.path.basename(rel)
            for style, shape in styles.items():
                if re.fullmatch(shape, name):
                    named = datetime.datetime.strptime(name, style).replace(tzinfo=datetime.timezone.utc)
                    self.assertEqual(int(named.timestamp()), t, rel)
                    seen.add(style)
                    ages.append((NOW_SECONDS - t) / 86400)
        self.assertEqual(seen, set(styles))
        self.assertTrue(any(a > 365 for a in ages) and any(a < 30 for a in ages))
        old_installers = [r for r, t in stamps.items() if re.fullmatch(r"Downloads/[^/]+\.(dmg|pkg)", r)
                          and NOW_SECONDS - t > 30 * 86400]
        self.assertGreaterEqual(len(old_installers), 3)
        big_old_videos = [r for r, t in stamps.items() if r.lower().endswith((".mp4", ".mov"))
                          and self.files[r].st_size > 1_000_000 and NOW_SECONDS - t > 365 * 86400]
        self.assertTrue(big_old_videos)


class Refusals(unittest.TestCase):
    def setUp(self):
        self.scratch = tempfile.mkdtemp(prefix="demo-home-test-")

    def tearDown(self):
        shutil.rmtree(self.scratch)

    def test_a_folder_with_something_in_it_is_left_alone(self):
        target = os.path.join(self.scratch, "home")
        os.mkdir(target)
        with open(os.path.join(target, "keep.txt"), "w") as f:
            f.write("mine")
        result = run(target, "--files", str(FILES))
        self.assertEqual(result.returncode, 2)
        self.assertIn("is not empty", result.stderr)
        self.assertEqual(os.listdir(target), ["keep.txt"])
        self.assertEqual(read(target, "keep.txt"), b"mine")

    def test_a_file_in_the_way_is_left_alone(self):
        target = os.path.join(self.scratch, "home")
        with open(target, "w") as f:
            f.write("mine")
        result = run(target)
        self.assertEqual(result.returncode, 2)
        self.assertIn("is not a folder", result.stderr)
        self.assertEqual(read(self.scratch, "home"), b"mine")

    def test_too_few_files_and_bad_dates_make_nothing(self):
        target = os.path.join(self.scratch, "home")
        for args, words in ((["--files", "10"], "--files must be at least"),
                            (["--now", "yesterday"], "is not a date"),
                            (["--dupes-gb", "-1"], "--dupes-gb must be")):
            result = run(target, *args)
            self.assertEqual(result.returncode, 2, args)
            self.assertIn(words, result.stderr)
            self.assertFalse(os.path.exists(target))

    def test_an_empty_folder_is_filled(self):
        target = os.path.join(self.scratch, "home")
        os.mkdir(target)
        self.assertEqual(run(target, "--files", str(FILES), "--now", NOW).returncode, 0)
        self.assertEqual(len(regular_files(target)), FILES)


class DuplicateVolume(unittest.TestCase):
    def test_same_size_videos_hold_copies_and_near_twins(self):
        scratch = tempfile.mkdtemp(prefix="demo-home-test-")
        self.addCleanup(shutil.rmtree, scratch)
        plain = os.path.join(scratch, "plain")
        bulky = os.path.join(scratch, "bulky")
        self.assertEqual(run(plain, "--files", str(FILES), "--now", NOW).returncode, 0)
        self.assertEqual(run(bulky, "--files", str(FILES), "--now", NOW, "--dupes-gb", "0.004").returncode, 0)
        added = sorted(set(regular_files(bulky)) - set(regular_files(plain)))
        self.assertGreaterEqual(len(added), 8)
        sizes = {os.path.getsize(os.path.join(bulky, rel)) for rel in added}
        self.assertEqual(len(sizes), 1)
        contents = [read(bulky, rel) for rel in added]
        digests = [hashlib.sha256(c).digest() for c in contents]
        self.assertGreaterEqual(len(digests) - len(set(digests)), len(added) // 4)
        one_byte_apart = sum(
            1 for i in range(len(contents)) for j in range(i + 1, len(contents))
            if len(differing_offsets(contents[i], contents[j])) == 1)
        self.assertGreaterEqual(one_byte_apart, len(added) // 4)


if __name__ == "__main__":
    unittest.main()
