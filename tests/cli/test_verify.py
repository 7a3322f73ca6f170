#!/usr/bin/env python3
"""`kvmp4 verify`: faults planted into sound files, each found by its kind and its box, and files of
other writers and of the recorder, of which there is nothing to say.

    test_verify.py KVMP4 DAMAGE [unittest arguments]
"""
import json
import os
import re
import signal
import subprocess
import sys
import time
import unittest

import faults
import faults_codecs  # plants more
import faults_tables  # and more
from boxes import Editor, box, walk
from media import OF_FFMPEG, OF_GSTREAMER, Media
from programs import InFolder, run, run_into_a_full_disk, undocumented, unreadable

KVMP4 = os.path.abspath(sys.argv.pop(1))
DAMAGE = os.path.abspath(sys.argv.pop(1))
ROUNDS = int(sys.argv.pop(1))  # damaged copies of each file; what is left names the tests
TAGS = ["--metadata", "title=T", "--metadata", "com.x.y=z"]


class Case(InFolder):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.media = Media(cls.folder.name, KVMP4)

    def verify(self, path, *options):
        """(exit code, findings) of a file; what is unusual on purpose is no finding."""
        result = run(KVMP4, "verify", "--json", *options, path)
        self.assertEqual(result.stderr, "")
        report = json.loads(result.stdout)
        return result.returncode, [f for f in report["findings"] if f["severity"] != "note"]

    def assert_sound(self, path):
        self.assertEqual(self.verify(path), (0, []), path)

    def written(self, content, name="damaged.mp4"):
        path = self.media.path(name)
        with open(path, "wb") as file:
            file.write(content)
        return path


def promised(media):
    """Fragments whose movie says beforehand how long they are."""
    with open(media.of_ffmpeg("fragments.mp4"), "rb") as file:
        editor = Editor(file.read())
    header = box(b"mehd", bytes(4) + (2000).to_bytes(4, "big"))
    begin = editor.begin("moov/mvex")
    editor.splice("moov/mvex", editor.span("moov/mvex/trex[2]")[1] - begin, 0, header)
    # The access points would have to move, too.
    editor.data = editor.data[:editor.begin("mfra")]
    for _, begin, _, kind, _ in list(walk(editor.data)):
        if kind == b"tfhd" and editor.data[begin + 11] & 1:  # it names a place in the file
            base = int.from_bytes(editor.data[begin + 16:begin + 24], "big") + len(header)
            editor.data[begin + 16:begin + 24] = base.to_bytes(8, "big")
    path = media.path("promised.mp4")
    with open(path, "wb") as file:
        file.write(editor.data)
    return path


def sources(media):
    """The files that faults are planted into."""
    return {
        "own": lambda: media.recorded("own.mp4", "h264", *TAGS),
        "hevc": lambda: media.recorded("own_hevc.mp4", "hevc"),
        "layers": lambda: media.of_ffmpeg("hevc_layers.mp4"),
        "prores": lambda: media.recorded("own_prores.mov", "prores"),
        "tracks": lambda: media.recorded("own_tracks.mov", "h264", "-i", media.scc(),
                                         "--timecode", "00:00:00:00"),
        "ffmpeg": lambda: media.of_ffmpeg("h264.mp4"),
        "high": lambda: media.of_ffmpeg("high_422_mono.mp4"),
        "text": lambda: media.of_ffmpeg("text.mp4"),
        "fragments": lambda: media.of_ffmpeg("fragments.mp4"),
        "segments": lambda: media.of_ffmpeg("dash.mp4"),
        "promised": lambda: promised(media),
    }


class Faults(Case):
    """One test for each planted fault; the file before it is sound."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.sound = {}

    def control(self, source):
        if source not in self.sound:
            path = sources(self.media)[source]()
            self.assert_sound(path)
            with open(path, "rb") as file:
                self.sound[source] = file.read()
        return self.sound[source]

    def check(self, source, code, path, change):
        editor = Editor(self.control(source))
        change(editor)
        self.assertNotEqual(editor.data, self.sound[source])
        exit_code, findings = self.verify(self.written(editor.data))
        said = [(f["code"], f["path"]) for f in findings]
        matching = [f for f in findings if f["code"] == code]
        self.assertTrue(matching, said)
        self.assertTrue(any(re.search(path, f["path"]) for f in matching), said)
        worst = any(f["severity"] == "error" for f in findings)
        self.assertEqual(exit_code, 12 if worst else 13)


def plant(name, *fault):
    def test(self):
        self.check(*fault)
    setattr(Faults, "test_" + name, test)


for planted in faults.FAULTS:
    assert not hasattr(Faults, "test_" + planted[0]), planted[0]
    plant(*planted)



class OtherWriters(Case):
    """Nothing is found in files that are as they should be."""

    def test_files_of_ffmpeg(self):
        for name in OF_FFMPEG:
            with self.subTest(name=name):
                self.assert_sound(self.media.of_ffmpeg(name))

    def test_files_of_gstreamer(self):
        for name in OF_GSTREAMER:
            with self.subTest(name=name):
                self.assert_sound(self.media.of_gstreamer(name))


class Recordings(Case):
    FORMS = [[], ["--version1"], ["--large-file"], ["--version1", "--large-file", "--fast-header"],
             ["--audio", "none"], TAGS,
             ["--safe", "--safe-min", "40KB", "--safe-strategy", "fixed"],
             ["--safe", "--large-file", "--safe-min", "60KB", "--safe-max", "90KB"]]

    def test_every_codec_and_form(self):
        for codec in ("h264", "hevc", "prores", "prores4444"):
            for kind in ("mp4", "mov"):
                for number, options in enumerate(self.FORMS):
                    with self.subTest(codec=codec, kind=kind, options=options):
                        self.assert_sound(self.media.recorded(f"{codec}{number}.{kind}", codec,
                                                              *options))

    def test_captions_and_time_code(self):
        for kind in ("mp4", "mov"):
            for captions in ("608", "708"):
                for large in ([], ["--large-file", "--safe", "--safe-min", "30KB"]):
                    with self.subTest(kind=kind, captions=captions, large=large):
                        self.assert_sound(self.media.recorded(
                            f"cc{captions}{len(large)}.{kind}", "h264", "-i", self.media.scc(),
                            "--caption-format", captions, "--timecode", "00:00:00:00", *large))

    def test_b_frames_in_decoding_order(self):
        path = self.media.path("reordered.mp4")
        result = run(KVMP4, "record", "-i", self.media.of_ffmpeg("h264.mp4"), "-o", path)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assert_sound(path)

    def killed(self, name, *options, behind=30000):
        """A recording that is killed as soon as a checkpoint lies behind a place."""
        path = self.media.path(name)
        process = subprocess.Popen([KVMP4, "record", "-i", self.media.camera("h264"), "-o", path,
                                    "--realtime", *options], stdin=subprocess.DEVNULL)
        deadline = time.monotonic() + 60
        while process.poll() is None and time.monotonic() < deadline:
            if os.path.exists(path):
                with open(path, "rb") as file:
                    # The size of mdat: checkpoints are 20 KB apart.
                    if int.from_bytes(file.read(40)[36:].ljust(4, b"\0"), "big") > behind:
                        break
            time.sleep(0.005)
        self.assertIsNone(process.poll())
        process.send_signal(signal.SIGKILL)
        process.wait(timeout=30)
        return path

    def test_recordings_with_checkpoints_as_they_were_killed(self):
        options = ["--safe", "--safe-strategy", "fixed", "--safe-min", "20KB", "--info"]
        for number in range(3):
            with self.subTest(number=number):
                self.assert_sound(self.killed(f"killed{number}.mp4", *options))

    def test_a_recording_killed_while_it_writes_a_checkpoint(self):
        with open(self.media.recorded("steps.mp4", "h264", "--safe", "--safe-min", "40KB"),
                  "rb") as file:
            whole = file.read()
        # Behind the movie the gap to the next checkpoint and the beginning of that.
        for tail in (b"", bytes(100), bytes(5000) + b"\0\0\0\x08moov",
                     bytes(300) + b"\0\0\0\x08moov\0\0\0\x6cmvhd" + bytes(50), bytes(9)):
            with self.subTest(tail=len(tail)):
                self.assert_sound(self.written(whole + tail))

    def test_a_repaired_recording(self):
        path = self.killed("repaired.mp4", "--safe", "--safe-strategy", "fixed", "--safe-min",
                           "20KB", "--info", "--info-flush", "10", behind=70000)
        result = run(KVMP4, "repair", "--force", path)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assert_sound(path)

    def test_a_file_beyond_four_gibibytes(self):
        with open(self.media.recorded("large.mp4", "h264", "--large-file"), "rb") as file:
            editor = Editor(file.read())
        begin = editor.begin("moov")
        hole = 5 << 30
        for track in (1, 2):
            table = f"moov/trak[{track}]/mdia/minf/stbl/co64"
            for n in range(editor.get(table, 12)):
                editor.add(table, 16 + 8 * n, hole, 8)
        editor.add("mdat", 8, hole, 8)
        path = self.media.path("beyond.mp4")
        with open(path, "wb") as file:  # the hole takes no room
            file.write(editor.data[:52])
            file.seek(hole, os.SEEK_CUR)
            file.write(editor.data[52:])
        self.assert_sound(path)
        with open(path, "r+b") as file:
            file.seek(hole + begin - 3)
            file.truncate()
        code, findings = self.verify(path)
        self.assertEqual((code, findings[0]["code"]), (12, "box-beyond-file"))
        os.remove(path)

    def test_a_recording_killed_before_its_first_checkpoint_is_damaged(self):
        with open(self.media.recorded("own.mp4", "h264", *TAGS), "rb") as file:
            data = file.read()
        editor = Editor(data[:len(data) // 2])
        editor.data[36:40] = (8).to_bytes(4, "big")  # as mdat is opened
        code, findings = self.verify(self.written(editor.data))
        self.assertEqual(code, 12)
        self.assertIn("box-missing", [f["code"] for f in findings])


class EveryBox(Case):
    """Each box of a file in turn."""

    def files(self):
        return [self.media.recorded("own.mp4", "h264", *TAGS),
                self.media.recorded("own_hevc.mov", "hevc"),
                self.media.recorded("own_tracks.mov", "h264", "-i", self.media.scc(),
                                    "--timecode", "00:00:00:00"),
                self.media.recorded("own_tracks.mp4", "prores", "-i", self.media.scc(),
                                    "--timecode", "00:00:00:00"),
                *(self.media.of_ffmpeg(name) for name in ("h264.mp4", "fragments.mp4", "h264.mov")),
                self.media.of_gstreamer("g_h264.mp4")]

    def test_a_destroyed_type_is_noticed_wherever_it_is(self):
        result = run(DAMAGE, "types", *self.files())
        self.assertEqual((result.returncode, result.stdout), (0, ""))

    def test_a_wrong_size_is_noticed_wherever_it_is(self):
        result = run(DAMAGE, "sizes", *self.files())
        self.assertEqual((result.returncode, result.stdout), (0, ""))


class Program(Case):
    """How it is called and what it says."""

    def sound(self):
        return self.media.recorded("own.mp4", "h264", *TAGS)

    def test_a_sound_file_takes_one_line(self):
        result = run(KVMP4, "verify", self.sound())
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(result.stdout, f"{self.sound()}: sound\n")

    def test_a_finding_tells_what_and_where(self):
        with open(self.sound(), "rb") as file:
            editor = Editor(file.read())
        editor.put("moov/mvhd", 104, 2)
        at = editor.begin("moov/mvhd") + 104
        path = self.written(editor.data)
        result = run(KVMP4, "verify", path)
        self.assertEqual(result.returncode, 12)
        self.assertEqual(result.stdout,
                         f"error    mvhd-next-track-id  moov/mvhd  at {at}: next track id 2; "
                         f"should be more than 2\n{path}: damaged, 1 error, 0 warnings\n")
        self.assertEqual(self.verify(path)[1],
                         [{"severity": "error", "code": "mvhd-next-track-id", "path": "moov/mvhd",
                           "offset": at, "found": "next track id 2", "expected": "more than 2"}])

    def test_the_json_report(self):
        result = run(KVMP4, "verify", "--json", self.sound())
        report = json.loads(result.stdout)
        self.assertEqual(list(report),
                         ["file", "size", "verdict", "errors", "warnings", "findings"])
        self.assertEqual((report["verdict"], report["errors"], report["warnings"]), ("sound", 0, 0))
        self.assertEqual(report["size"], os.path.getsize(self.sound()))

    def disordered(self):
        """Nine entries in the table of sync samples, all the same."""
        with open(self.sound(), "rb") as file:
            editor = Editor(file.read())
        stss = "moov/trak[1]/mdia/minf/stbl/stss"
        editor.splice(stss, 16, 4 * editor.get(stss, 12), (1).to_bytes(4, "big") * 9)
        editor.put(stss, 12, 9)
        return self.written(editor.data)

    def test_the_fields_of_the_json_report_are_documented(self):
        report = json.loads(run(KVMP4, "verify", "--json", self.disordered()).stdout)
        self.assertTrue(any("more" in finding for finding in report["findings"]))
        self.assertEqual(undocumented(report), set())

    def test_what_is_unusual_on_purpose_is_told_with_verbose(self):
        tracks = sources(self.media)["tracks"]()
        self.assertNotIn("note", run(KVMP4, "verify", tracks).stdout)
        told = run(KVMP4, "verify", "-v", tracks)
        self.assertIn("hdlr-caption", told.stdout)
        self.assertEqual(told.returncode, 0)

    def test_warnings_have_an_exit_code_of_their_own(self):
        with open(self.sound(), "rb") as file:
            editor = Editor(file.read())
        editor.retype("ftyp", b"free")
        result = run(KVMP4, "verify", self.written(editor.data))
        self.assertEqual(result.returncode, 13)
        self.assertIn("doubtful, 0 errors, 1 warning", result.stdout)

    def test_many_findings_of_a_kind_are_counted(self):
        _, findings = self.verify(self.disordered())
        orders = [f for f in findings if f["code"] == "stss-order"]
        self.assertEqual((len(orders), orders[-1]["more"]), (3, 5))

    def test_without_the_samples_their_bytes_are_not_judged(self):
        with open(self.sound(), "rb") as file:
            editor = Editor(file.read())
        editor.data[editor.sample("moov/trak[1]") + 4] |= 0x80
        path = self.written(editor.data)
        self.assertEqual(self.verify(path)[0], 12)
        self.assertEqual(self.verify(path, "--tables-only"), (0, []))

    def test_other_files_have_exit_codes_of_their_own(self):
        cases = [(3, self.media.path("missing.mp4")), (3, self.folder.name),
                 (14, self.media.scc()), (14, self.written(b"", "empty.mp4")),
                 (14, self.written(b"\0\0\0", "three.mp4")),
                 (14, self.written(os.urandom(4000) + b"x", "noise.mp4"))]
        for code, path in cases:
            with self.subTest(path=path):
                result = run(KVMP4, "verify", path)
                self.assertEqual((result.returncode, result.stdout), (code, ""))
                self.assertRegex(result.stderr, r"^kvmp4: [^\n]+\n$")
        self.assertEqual(run(KVMP4, "verify").returncode, 2)

    def test_a_type_of_odd_bytes_is_told_in_json(self):
        with open(self.sound(), "rb") as file:
            editor = Editor(file.read())
        at = editor.begin("moov/trak[1]/mdia/minf/vmhd") + 4
        editor.data[at] = 0xff
        code, findings = self.verify(self.written(editor.data))
        self.assertEqual(code, 12)
        self.assertIn(".mhd of a vide track", [f["found"] for f in findings])

    def test_a_report_that_is_lost_is_told(self):
        for options in ((), ("--json",)):
            result = run_into_a_full_disk(KVMP4, "verify", *options, self.sound())
            self.assertEqual(result.returncode, 6)
            self.assertRegex(result.stderr, r"^kvmp4: [^\n]*standard output\n$")

    @unittest.skipUnless(unreadable(), "no file that opens and cannot be read")
    def test_a_read_error_is_no_damage(self):
        result = run(KVMP4, "verify", unreadable())
        self.assertEqual((result.returncode, result.stdout), (3, ""))
        self.assertIn("Invalid argument", result.stderr)

    def test_whatever_the_damage_it_comes_back(self):
        files = [self.sound(), self.media.of_ffmpeg("fragments.mp4"),
                 sources(self.media)["tracks"](), self.media.of_gstreamer("g_h264.mov")]
        result = run(DAMAGE, "random", "20261121", str(ROUNDS), *files)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertRegex(result.stdout, rf"^\d+ of {ROUNDS * len(files)} found sound\n$")


class Table(unittest.TestCase):
    """The list of kinds in docs/verify.md."""

    def test_every_kind_is_listed_and_no_other(self):
        root = os.path.join(os.path.dirname(__file__), "..", "..")
        sources = os.path.join(root, "tools", "kvmp4")
        kinds = set()
        for name in os.listdir(sources):
            if name.startswith(("verify", "box_tree", "movie", "fragments")):
                with open(os.path.join(sources, name)) as file:
                    kinds |= set(re.findall(r'"([a-z0-9]+(?:-[a-z0-9]+)+|matrix)"', file.read()))
        kinds = {kind for kind in kinds if len(kind) > 4}  # types of boxes have four letters
        with open(os.path.join(root, "docs", "verify.md")) as file:
            listed = set(re.findall(r"^\| `([a-z0-9-]+)`", file.read(), re.MULTILINE))
        self.assertEqual(listed, kinds)
        planted = {fault[2] for fault in faults.FAULTS}
        self.assertEqual(planted - listed, set())


if __name__ == "__main__":
    unittest.main(verbosity=2)
