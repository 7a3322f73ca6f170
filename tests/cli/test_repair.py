#!/usr/bin/env python3
"""`kvmp4 repair` on recordings whose logs are made here, byte by byte, around FFmpeg's files; and
the options of `kvmp4 record` that make its own.

    test_repair.py KVMP4 [unittest arguments]
"""
import ctypes
import json
import os
import resource
import struct
import sys
import unittest

from programs import InFolder, decoded, ffmpeg, run, run_into_a_full_disk, undocumented

KVMP4 = os.path.abspath(sys.argv.pop(1))


def content(path):
    with open(path, "rb") as file:
        return file.read()


def write(path, data):
    with open(path, "wb") as file:
        file.write(data)


class Folder(InFolder):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.clip = cls.path("clip.mp4")
        ffmpeg("-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=2", "-f", "lavfi", "-i",
               "sine=sample_rate=48000:duration=2", "-c:v", "libx264", "-preset", "ultrafast",
               "-bf", "0", "-c:a", "aac", cls.clip)


class Repair(Folder):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.whole = content(cls.clip)
        cls.mdat = cls.whole.index(b"mdat") - 4
        cls.moov = cls.whole.rindex(b"moov") - 4
        cls.pictures = decoded(cls.clip, "v")
        packets = json.loads(run("ffprobe", "-v", "error", "-show_packets", "-of", "json",
                                 cls.clip).stdout)["packets"]
        # tag, time, key flag and size of each sample, as they lie.
        cls.samples = [(4 if p["codec_type"] == "video" else 5, p["dts"], "K" in p["flags"],
                        int(p["size"])) for p in sorted(packets, key=lambda p: int(p["pos"]))]
        avcc = cls.whole.index(b"avcC") + 4
        size, = struct.unpack_from(">H", cls.whole, avcc + 6)
        sps = cls.whole[avcc + 8:avcc + 8 + size]
        after = avcc + 8 + size
        size, = struct.unpack_from(">H", cls.whole, after + 1)
        pps = cls.whole[after + 3:after + 3 + size]
        cls.header = struct.pack(">BI", 0x10, cls.mdat)
        cls.video = (struct.pack(">BIQBHHI", 2, 12800, 512, 0, 160, 120, len(sps)) + sps +
                     struct.pack(">I", len(pps)) + pps)
        cls.audio = struct.pack(">BIQBHHB", 3, 48000, 1024, 1, 48000, 1, 2)

    def log_of(self, count):
        log = b""
        for tag, time, key, size in self.samples[:count]:
            log += (struct.pack(">BQQBI", 4, time, time, key, size) if tag == 4 else
                    struct.pack(">BQI", 5, max(time, 0), size))
        return log

    def killed(self, name="take.mp4", count=60, log=None, media=None):
        """A recording that was killed after so many samples; the pictures among all but the last
        one."""
        path = self.path(name)
        for leftover in (path, path + ".info", path + ".bak", path + ".bak.info"):
            if os.path.exists(leftover):
                os.remove(leftover)
        end = self.mdat + 8 + sum(sample[3] for sample in self.samples[:count])
        if media is None:
            media = self.whole[:self.mdat] + struct.pack(">I", 8) + self.whole[self.mdat + 4:end]
        write(path, media)
        if log is None:
            log = self.header + self.video + self.audio + self.log_of(count)
        write(path + ".info", log)
        return path

    def pictures_before(self, count):
        return self.pictures[:sum(sample[0] == 4 for sample in self.samples[:count])]

    def repair(self, *arguments, code=0, **options):
        result = run(KVMP4, "repair", *arguments, **options)
        self.assertEqual(result.returncode, code, result.stdout + result.stderr)
        return result

    def refused(self, path, sentence):
        """Both files stay as they were, and standard error says why."""
        before = content(path), content(path + ".info")
        for arguments in ((), ("--dry-run",), ("--json",)):
            result = self.repair(*arguments, path, code=10)
            self.assertEqual(len(result.stderr.splitlines()), 1)
            self.assertIn(sentence, result.stderr)
        self.assertEqual((content(path), content(path + ".info")), before)

    # ---- Repairs

    def test_all_samples_but_the_last_are_saved(self):
        path = self.killed()
        result = self.repair(path)
        self.assertEqual(decoded(path, "v"), self.pictures_before(59))
        self.assertEqual(result.stderr, "")
        self.assertIn("The file does not play as it lies.", result.stdout)
        self.assertIn("Repaired:", result.stdout)
        self.assertNotIn("Read EOF", result.stdout)
        self.assertTrue(os.path.exists(path + ".info"))

    def test_a_second_repair_changes_nothing(self):
        path = self.killed()
        self.repair(path)
        first = content(path)
        self.repair(path)
        self.assertEqual(content(path), first)

    def test_a_dry_run_changes_nothing(self):
        path = self.killed()
        before = content(path), content(path + ".info"), os.stat(path).st_mtime_ns
        result = self.repair("--dry-run", "--backup", "--delete-log", path)
        self.assertEqual((content(path), content(path + ".info"), os.stat(path).st_mtime_ns),
                         before)
        self.assertIn("Nothing was changed.", result.stdout)
        self.assertFalse(os.path.exists(path + ".bak"))

    def test_a_backup_holds_both_files_as_they_were(self):
        path = self.killed()
        before = content(path), content(path + ".info")
        self.repair("--backup", "--delete-log", path)
        self.assertEqual((content(path + ".bak"), content(path + ".bak.info")), before)
        self.assertFalse(os.path.exists(path + ".info"))
        self.assertEqual(decoded(path, "v"), self.pictures_before(59))

    def test_the_findings_come_first(self):
        path = self.killed()
        lines = self.repair("--dry-run", path).stdout.splitlines()
        self.assertIn(f"{os.path.getsize(path)} bytes, its log: "
                      f"{os.path.getsize(path + '.info')} bytes", lines[0])
        video = len(self.pictures_before(59))
        self.assertEqual(lines[1], f"  video      {video} samples to be saved, H.264 160x120")
        self.assertEqual(lines[2],
                         f"  audio      {59 - video} samples to be saved, AAC 48000 Hz, 1 ch")
        last = "video" if self.samples[59][0] == 4 else "audio"
        self.assertIn(f"The last packet of the log is lost ({last} sample).", lines)

    def test_json_tells_all(self):
        path = self.killed()
        size = os.path.getsize(path)
        report = json.loads(self.repair("--json", path).stdout)
        video = len(self.pictures_before(59))
        samples = {"video": video, "audio": 59 - video}
        self.assertEqual(report["exit_code"], 0)
        self.assertEqual(report["action"], "repaired")
        self.assertEqual(report["found"]["file"]["size"], size)
        self.assertEqual(report["found"]["file"]["plays"], False)
        self.assertEqual(report["found"]["log"]["size"], os.path.getsize(path + ".info"))
        self.assertEqual(report["found"]["keeps"]["samples"], samples)
        self.assertEqual(report["found"]["loses"]["unlogged_bytes"], self.samples[59][3])
        self.assertEqual(report["saved"]["samples"], samples)
        self.assertEqual(report["saved"]["size"], os.path.getsize(path))
        self.assertEqual(undocumented(report), set())

    def test_samples_beyond_the_end_of_the_file_are_told(self):
        path = self.killed()
        write(path, content(path)[:-self.samples[59][3] - 1])
        report = json.loads(self.repair("--dry-run", "--json", path).stdout)
        kind = "video" if self.samples[58][0] == 4 else "audio"
        self.assertEqual(report["found"]["loses"]["broken_samples"], {kind: 1})

    def test_a_damaged_log_saves_what_came_before(self):
        log = self.header + self.video + self.audio + self.log_of(30) + b"\x63" + self.log_of(9)
        path = self.killed(log=log)
        self.repair("--dry-run", path, code=11)
        report = json.loads(self.repair("--json", path, code=11).stdout)
        self.assertEqual(decoded(path, "v"), self.pictures_before(30))
        self.assertEqual(report["found"]["log"]["damage"]["byte"],
                         len(self.header + self.video + self.audio + self.log_of(30)))
        self.assertTrue(os.path.exists(path + ".info"))

    def test_a_time_code_costs_four_bytes_of_the_last_sample(self):
        path = self.with_time_code()
        report = json.loads(self.repair("--json", path).stdout)
        self.assertEqual(sum(report["found"]["loses"]["broken_samples"].values()), 1)
        self.assertEqual(report["saved"]["samples"]["time code"], 1)

    def test_captions_are_saved_and_counted(self):
        for kind, codec in ((1, "CEA-608"), (2, "CEA-708")):
            log = (self.header + self.video + self.audio + struct.pack(">BIB", 6, 1000, kind) +
                   self.log_of(59) + b"".join(struct.pack(">BQI", 7, 40 * i, 20)
                                              for i in range(4)))
            end = self.mdat + 8 + sum(sample[3] for sample in self.samples[:59])
            caption = struct.pack(">I4s", 20, b"cdat") + 6 * b"\x80\x80"
            path = self.killed(f"{codec}.mp4", log=log, media=(
                self.whole[:self.mdat] + struct.pack(">I", 8) + self.whole[self.mdat + 4:end] +
                4 * caption))
            report = json.loads(self.repair("--json", path).stdout)
            with self.subTest(codec):
                self.assertEqual(report["found"]["log"]["tracks"][2]["codec"], codec)
                self.assertEqual(report["action"], "repaired")
                self.assertEqual(report["saved"]["samples"]["captions"], 3)
                self.assertEqual(report["saved"]["samples"], report["found"]["keeps"]["samples"])
                # Nothing more is to be had; a second repair finds the file as good as its log.
                again = json.loads(self.repair("--json", path).stdout)
                self.assertEqual(again["found"]["file"]["samples"], report["saved"]["samples"])

    def test_a_large_file_with_checkpoints_gets_its_mark_back(self):
        # 16 bytes of header, whose 32-bit size a checkpoint has replaced.
        start = self.whole[:self.mdat] + struct.pack(">I", 500000) + b"mdat" + bytes(8)
        log = (struct.pack(">BI", 0x1a, self.mdat) + self.video + self.audio + self.log_of(60))
        path = self.killed(log=log, media=start + self.whole[self.mdat + 8:self.moov])
        self.repair(path)
        self.assertEqual(decoded(path, "v"), self.pictures_before(59))

    def with_time_code(self):
        log = (self.header + struct.pack(">BIQBI", 8, 25, 1, 25, 0) + struct.pack(">BI", 9, 0) +
               self.video + self.audio + self.log_of(60))
        data = self.whole[self.mdat + 8:self.moov]
        return self.killed(log=log, media=self.whole[:self.mdat] + struct.pack(">I", 8) + b"mdat" +
                           bytes(4) + data)

    def test_a_second_repair_with_a_time_code_changes_nothing(self):
        path = self.with_time_code()
        self.repair(path)
        first = content(path)
        report = json.loads(self.repair("--json", path).stdout)
        self.assertEqual(content(path), first)
        # The last sample ends under the index.
        self.assertEqual(sum(report["found"]["file"]["samples"].values()), 59)
        self.assertEqual(sum(report["found"]["keeps"]["samples"].values()), 60)

    def test_captions_that_are_all_empty_are_saved(self):
        log = (self.header + self.video + self.audio + struct.pack(">BIB", 6, 1000, 1) +
               self.log_of(59) + b"".join(struct.pack(">BQI", 7, 40 * i, 0) for i in range(4)))
        path = self.killed(count=59, log=log)
        for _ in range(2):
            report = json.loads(self.repair("--json", path).stdout)
            self.assertEqual(report["saved"]["samples"]["captions"], 3)
        self.assertEqual(report["found"]["file"]["samples"], report["saved"]["samples"])

    def test_what_stands_behind_a_damage_is_not_said_to_be_cut(self):
        log = self.header + self.video + self.audio + self.log_of(30) + b"\x63" + self.log_of(9)
        path = self.killed(log=log)
        size = os.path.getsize(path)
        text = self.repair("--delete-log", path, code=11).stdout
        self.assertIn("are not cut, but the index is written over the first of them", text)
        self.assertIn(f"The log {path}.info was not deleted: it is damaged.", text)
        self.assertEqual(os.path.getsize(path), size)
        report = json.loads(self.repair("--json", "--backup", "--delete-log", path, code=11).stdout)
        self.assertEqual(report["log_deleted"], False)
        self.assertEqual(undocumented(report), set())

    def test_a_deleted_log_is_told(self):
        path = self.killed()
        self.assertEqual(json.loads(self.repair("--json", path).stdout)["log_deleted"], False)
        report = json.loads(self.repair("--json", "--delete-log", path).stdout)
        self.assertEqual(report["log_deleted"], True)

    @unittest.skipIf(os.geteuid(), "only root can give a folder away")
    def test_a_log_that_cannot_be_deleted_is_told(self):
        path = self.killed()
        os.chmod(self.folder.name, 0o755)
        os.chown(self.folder.name, 65534, 65534)
        libc = ctypes.CDLL(None)
        # Without CAP_DAC_OVERRIDE, from the exec on: PR_CAPBSET_DROP.
        text = self.repair("--delete-log", path, preexec_fn=lambda: libc.prctl(24, 1, 0, 0, 0)).stdout
        self.assertIn(f"The log {path}.info was not deleted: the system does not allow it.", text)
        self.assertTrue(os.path.exists(path + ".info"))
        os.chown(self.folder.name, 0, 0)

    # ---- Refusals

    def test_a_path_that_is_not_utf8_is_refused(self):
        path = self.killed()
        other = os.fsencode(self.path("take")) + b"\xe9.mp4"
        for suffix in ("", ".info"):
            write(other + suffix.encode(), content(path + suffix))
        result = self.repair("--force", other, code=2)
        self.assertIn("not valid UTF-8", result.stderr)
        self.assertEqual(content(other), content(path))
        named = self.killed("t\u00e4ke \n\U0001f3a5.mp4")
        self.repair(named)
        self.assertEqual(decoded(named, "v"), self.pictures_before(59))

    def test_data_beyond_4_gib_without_64_bit_sizes_are_refused(self):
        log = self.header + self.video + self.audio + b"".join(
            struct.pack(">BQQBI", 4, 512 * i, 512 * i, 1, 1500000000) for i in range(4))
        path = self.killed(log=log)
        os.truncate(path, self.mdat + 8 + 3 * 1500000000)
        size = os.path.getsize(path)
        result = self.repair(path, code=10)
        self.assertIn("not recorded as a large file", result.stderr)
        self.assertEqual(os.path.getsize(path), size)
        # Half of it is no trouble.
        write(path + ".info", log[:-2 * 22])
        self.repair("--dry-run", path)
        os.remove(path)

    def test_a_log_of_a_header_alone_is_refused_unless_forced(self):
        path = self.killed(log=self.header)
        self.refused(path, "would empty the file")
        self.repair("--force", path)
        self.assertEqual(content(path), b"")

    def test_an_empty_log_is_refused(self):
        self.refused(self.killed(log=b""), "would empty the file")

    def test_a_file_that_ends_before_its_data_is_refused_unless_forced(self):
        path = self.killed(media=self.whole[:self.mdat + 7])
        self.refused(path, "ends before its data begins")
        self.repair("--force", path)
        self.assertEqual(content(path), b"")

    def test_a_log_without_tracks_is_refused_unless_forced(self):
        item = b"\x01\x01" + struct.pack(">I", 6) + b"title\0" + struct.pack(">I", 2) + b"a\0"
        path = self.killed(log=self.header + (item + bytes(4)) * 2)
        self.refused(path, "names no video and no audio track")
        self.repair("--force", path)
        self.assertEqual(content(path), b"")

    def test_a_log_without_samples_is_refused(self):
        log = self.header + self.video + self.audio + self.log_of(1)
        self.refused(self.killed(log=log), "names no sample but the one that is lost")

    def test_a_log_damaged_before_its_first_track_cannot_even_be_forced(self):
        item = b"\x01\x01" + struct.pack(">I", 6) + b"title\0" + struct.pack(">I", 2) + b"a\0"
        path = self.killed(log=self.header + item + bytes(4) + b"\x63" + self.video)
        self.refused(path, "damaged before its first track")
        before = content(path)
        self.repair("--force", path, code=10)
        self.assertEqual(content(path), before)

    def test_a_file_that_plays_with_more_is_refused_unless_forced(self):
        log = self.header + self.video + self.audio + self.log_of(60)
        path = self.killed(log=log, media=self.whole)
        self.refused(path, f"plays as it lies with {len(self.samples)} samples, and a repair would "
                           "leave 59")
        self.assertEqual(decoded(path, "v"), self.pictures)
        self.repair("--force", path)
        self.assertEqual(decoded(path, "v"), self.pictures_before(59))

    def test_a_file_that_plays_with_as_much_is_repaired(self):
        log = self.header + self.video + self.audio + self.log_of(len(self.samples)) + b"\x05"
        path = self.killed(log=log, media=self.whole)
        self.repair(path)
        self.assertEqual(decoded(path, "v"), self.pictures)

    def test_an_index_of_samples_beyond_the_end_counts_for_nothing(self):
        # The same file, whose index claims that its data lies one gigabyte further on.
        media = bytearray(self.whole)
        for box in (self.whole.index(b"stco"), self.whole.rindex(b"stco")):
            chunks, = struct.unpack_from(">I", media, box + 8)
            for chunk in range(chunks):
                media[box + 12 + 4 * chunk] = 0x40
        log = self.header + self.video + self.audio + self.log_of(60)
        self.repair(self.killed(log=log, media=bytes(media)))

    def test_the_log_of_another_file_is_refused(self):
        log = struct.pack(">BI", 0x10, self.mdat + 3) + self.video + self.audio + self.log_of(60)
        self.refused(self.killed(log=log), "belongs to another file")

    def test_a_path_of_the_other_kind_is_refused(self):
        self.refused(self.killed("take.mov"), "its path contains \"mov\"")

    def test_a_file_that_is_being_written_is_refused(self):
        path = self.killed()
        with open(path + ".info", "ab"):
            self.refused(path, f"process {os.getpid()} is still writing it")
        self.repair(path)

    # ---- Failures

    def test_a_missing_file(self):
        result = self.repair(self.path("nowhere.mp4"), code=3)
        self.assertIn("No such file or directory", result.stderr)

    def test_a_folder_is_no_file(self):
        self.repair(self.folder.name, code=3)

    def test_a_missing_log(self):
        path = self.killed()
        os.remove(path + ".info")
        result = self.repair(path, code=7)
        self.assertEqual(len(result.stderr.splitlines()), 1)
        self.assertIn("has no log", result.stderr)

    def test_an_unreadable_log(self):
        path = self.killed("folder.mp4")
        os.remove(path + ".info")
        os.mkdir(path + ".info")
        result = self.repair(path, code=8)
        self.assertEqual(len(result.stderr.splitlines()), 1)
        self.assertIn("cannot be read", result.stderr)

    def test_something_else_than_a_log(self):
        for other in (b"Dear diary, this is no log at all.", self.header + b"\x0a" + bytes(50)):
            path = self.killed(log=other)
            before = content(path)
            for arguments in ((), ("--force",)):
                result = self.repair(*arguments, path, code=9)
                self.assertIn("is not the log of a recording", result.stderr)
            self.assertEqual(content(path), before)

    def test_a_backup_overwrites_nothing(self):
        path = self.killed()
        write(path + ".bak", b"dear")
        before = content(path)
        self.repair("--backup", path, code=5)
        self.assertEqual((content(path), content(path + ".bak")), (before, b"dear"))

    def test_a_full_disk(self):
        path = self.killed()
        size = self.mdat + 8 + sum(sample[3] for sample in self.samples[:59])
        result = self.repair(path, code=6, preexec_fn=lambda: resource.setrlimit(
            resource.RLIMIT_FSIZE, (size, size)))
        self.assertEqual(len(result.stderr.splitlines()), 1)
        self.repair(path)  # with room again
        self.assertEqual(decoded(path, "v"), self.pictures_before(59))

    def test_a_report_that_is_lost_is_told(self):
        for arguments in ((), ("--json",)):
            path = self.killed()
            result = run_into_a_full_disk(KVMP4, "repair", *arguments, path)
            self.assertEqual(result.returncode, 6)
            self.assertIn("standard output", result.stderr)
            # The repair itself is done.
            self.assertEqual(decoded(path, "v"), self.pictures_before(59))

    def test_usage(self):
        self.repair(code=2)
        self.repair("--unknown", self.clip, code=2)
        self.repair("x" * 1019, code=2)

    def test_failures_are_told_in_json_as_well(self):
        report = json.loads(self.repair("--json", self.path("nowhere.mp4"), code=3).stdout)
        self.assertEqual((report["exit_code"], report["action"]), (3, "none"))
        self.assertIn("cannot be opened", report["error"])
        self.assertEqual(undocumented(report), set())


class RecordSafely(Folder):
    def record(self, *arguments, code=0, name="take.mp4"):
        path = self.path(name)
        result = run(KVMP4, "record", "-i", self.clip, "-o", path, *arguments)
        self.assertEqual(result.returncode, code, result.stderr)
        self.assertEqual(result.stdout, "")
        return path, result

    def index_position(self, path):
        data, position = content(path), 0
        while data[position + 4:position + 8] != b"moov":
            position += struct.unpack_from(">I", data, position)[0]
        return position

    def test_a_proper_end_leaves_no_log(self):
        for options in (["--info"], ["--safe", "--info", "--info-flush", "10"],
                        ["--profile", "low-loss"]):
            path, _ = self.record("-y", *options)
            self.assertFalse(os.path.exists(path + ".info"))
            self.assertEqual(decoded(path, "v"), decoded(self.clip, "v"))

    def test_the_least_distance_places_the_index(self):
        path, _ = self.record("-y", "--safe", "--safe-min", "1MiB")
        self.assertEqual(self.index_position(path), 1048576)

    def test_the_strategies_place_the_checkpoints(self):
        distances = {}
        for strategy in ("fixed", "linear", "stepped"):
            path, result = self.record("-y", "-v", "--safe", "--safe-strategy", strategy,
                                       "--safe-min", "40000", "--safe-max", "200000",
                                       "--safe-threshold", "50000")
            distances[strategy] = [int(line.rsplit(" ", 1)[1])
                                   for line in result.stderr.splitlines()
                                   if "update moov header to" in line]
            self.assertEqual(decoded(path, "v"), decoded(self.clip, "v"))
        self.assertEqual(len(set(map(tuple, distances.values()))), 3, distances)

    def test_low_loss_makes_a_checkpoint_in_each_second(self):
        path = self.path("long.mp4")
        clip = self.path("long.ts")
        ffmpeg("-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25:duration=10", "-c:v", "libx264",
               "-preset", "ultrafast", "-bf", "0", "-g", "50", clip)
        result = run(KVMP4, "record", "-v", "-i", clip, "-o", path, "--profile", "low-loss")
        checkpoints = result.stderr.count("update moov header to")
        self.assertGreaterEqual(checkpoints, 8)
        self.assertLessEqual(checkpoints, 30)
        self.assertEqual(decoded(path, "v"), decoded(clip, "v"))

    def test_low_loss_of_a_recording_shorter_than_its_first_second(self):
        path, _ = self.record("-y", "--profile", "low-loss", "--duration", "0.5")
        self.assertEqual(len(decoded(path, "v")), 13)
        self.assertLess(os.path.getsize(path), 3 * os.path.getsize(self.clip))

    def test_options_that_do_not_go_together(self):
        for options in (["--safe", "--fast-header"], ["--profile", "low-loss", "--fast-header"],
                        ["--safe-min", "1MiB"], ["--info-flush", "30"],
                        ["--info", "--info-flush", "9"], ["--profile", "high-loss"],
                        ["--profile", "low-loss", "--safe-min", "1MiB"],
                        ["--profile", "low-loss", "--info-flush", "30"],
                        ["--safe", "--safe-strategy", "random"]):
            with self.subTest(options=options):
                path, _ = self.record(*options, code=2, name="none.mp4")
                self.assertFalse(os.path.exists(path))

    def test_the_log_of_a_cut_off_recording_is_not_overwritten(self):
        log = self.path("other.mp4.info")
        write(log, b"dear")
        self.record("--info", code=5, name="other.mp4")
        self.assertEqual(content(log), b"dear")

    def test_overwriting_a_cut_off_recording_drops_its_log(self):
        log = self.path("third.mp4.info")
        write(log, b"old")
        self.record("-y", name="third.mp4")
        self.assertFalse(os.path.exists(log))


if __name__ == "__main__":
    unittest.main()
