#!/usr/bin/env python3
"""What the library writes in unusual cases, on purpose: `kvmp4 verify` knows it and raises no alarm.

    test_odd_forms.py KVMP4 LIBRARY [unittest arguments]
"""
import ctypes
import json
import os
import re
import subprocess
import sys
import unittest

from programs import InFolder, run

KVMP4 = os.path.abspath(sys.argv.pop(1))
LIBRARY = ctypes.CDLL(os.path.abspath(sys.argv.pop(1)))
FORMS = [(kind, flags) for kind in ("mp4", "mov") for flags in (0, 3, 0x20)]
U8, U16, U32, U64 = ctypes.c_uint8, ctypes.c_uint16, ctypes.c_uint32, ctypes.c_uint64


class VideoTrack(ctypes.Structure):
    _fields_ = [("timescale", U32), ("sample_duration", U64), ("codec", U32), ("width", U16),
                ("height", U16), ("sps", ctypes.c_char_p), ("sps_size", ctypes.c_int16),
                ("pps", ctypes.c_char_p), ("pps_size", ctypes.c_int16),
                ("vps", ctypes.c_char_p), ("vps_size", ctypes.c_int16)]


class AudioTrack(ctypes.Structure):
    _fields_ = [("timescale", U32), ("sample_duration", U64), ("codec", U32),
                ("sample_rate", U16), ("channels", U16), ("object_type", U8)]


class CaptionTrack(ctypes.Structure):
    _fields_ = [("codec", U32), ("timescale", U32)]


class TimeCodeTrack(ctypes.Structure):
    _fields_ = [("timescale", U32), ("frame_duration", U64), ("frames_per_second", U8),
                ("flags", U32)]


def encoded(*arguments):
    command = ["ffmpeg", "-v", "error", "-f", "lavfi", "-i", *arguments, "-"]
    return subprocess.run(command, capture_output=True, check=True, stdin=subprocess.DEVNULL).stdout


def pictures():
    raw = encoded("testsrc2=size=160x120:rate=25:duration=1", "-c:v", "libx264", "-preset",
                  "ultrafast", "-bf", "0", "-g", "10", "-x264-params", "aud=1", "-f", "h264")
    return re.split(rb"(?=\x00\x00\x00\x01\x09)", raw)[1:]


def transport_frames(rate):
    raw, frames = encoded(f"sine=sample_rate={rate}:duration=1", "-c:a", "aac", "-ac", "1", "-ar",
                          str(rate), "-f", "adts"), []
    while raw:
        size = (raw[3] & 3) << 11 | raw[4] << 3 | raw[5] >> 5
        frames.append(raw[:size])
        raw = raw[size:]
    return frames


class Recording:
    def __init__(self, path, flags):
        self.handle = ctypes.c_void_p()
        assert LIBRARY.mp4_create_file_ex(path.encode(), flags, ctypes.byref(self.handle)) == 0

    def video(self, duration=40):
        track = VideoTrack(timescale=1000, sample_duration=duration, width=160, height=120)
        assert LIBRARY.mp4_set_video_track(self.handle, ctypes.byref(track)) == 0

    def audio(self):
        track = AudioTrack(timescale=48000, codec=2)
        assert LIBRARY.mp4_set_audio_track(self.handle, ctypes.byref(track)) == 0

    def captions(self, codec=1):
        track = CaptionTrack(codec, 30000)
        assert LIBRARY.mp4_set_subtitle_track(self.handle, ctypes.byref(track)) == 0

    def time_code(self):
        track = TimeCodeTrack(25, 1, 25, 0)
        assert LIBRARY.mp4_set_time_code_track(self.handle, ctypes.byref(track)) == 0

    def frames(self, kind, frames, start=0, step=40):
        write = getattr(LIBRARY, f"mp4_write_{kind}_frame")
        for number, frame in enumerate(frames):
            assert write(self.handle, frame, len(frame), U64(start + number * step)) == 0

    def label(self, value):
        assert LIBRARY.mp4_write_time_code(self.handle, value) == 0

    def close(self):
        assert LIBRARY.mp4_close_file(self.handle) == 0


class OddForms(InFolder):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.pictures = pictures()

    def check(self, make, *notes):
        """Records in every form; nothing but these notes must be told of it."""
        for kind, flags in FORMS:
            with self.subTest(kind=kind, flags=flags):
                path = self.path(f"odd.{kind}")
                recording = Recording(path, flags)
                make(recording)
                recording.close()
                result = run(KVMP4, "verify", "--json", path)
                findings = json.loads(result.stdout)["findings"]
                told = {f["code"] for f in findings}
                # The time code of MP4 files has a media header of its own form.
                self.assertEqual(told - {"nmhd-container"}, set(notes), findings)
                self.assertEqual({f["severity"] for f in findings} - {"note"}, set())
                self.assertEqual(result.returncode, 0)

    def test_no_track_at_all(self):
        self.check(lambda r: None, "track-none")

    def test_a_track_without_a_frame(self):
        self.check(lambda r: r.video(), "track-none")

    def test_a_lone_frame_of_unknown_duration(self):
        self.check(lambda r: (r.video(0), r.frames("video", self.pictures[:1], start=77)),
                   "mdhd-alone")

    def test_a_recording_that_begins_late(self):
        self.check(lambda r: (r.video(), r.frames("video", self.pictures, start=5000)))

    def test_a_sample_duration_that_no_frame_has(self):
        self.check(lambda r: (r.video(41), r.frames("video", self.pictures)), "mdhd-last")

    def test_a_time_code_that_was_announced_and_never_came(self):
        self.check(lambda r: (r.video(), r.time_code(), r.frames("video", self.pictures)),
                   "tref-unused")

    def test_two_time_codes(self):
        self.check(lambda r: (r.video(), r.time_code(), r.label(5),
                              r.frames("video", self.pictures), r.label(6)), "mdhd-alone")

    def test_a_time_code_without_a_track(self):
        self.check(lambda r: (r.video(), r.frames("video", self.pictures), r.label(5)))

    def test_captions_that_are_none(self):
        self.check(lambda r: (r.video(), r.captions(), r.frames("video", self.pictures),
                              r.frames("subtitle", [b"xx"] * 3, step=1001)), "hdlr-caption")

    def test_a_lone_caption(self):
        self.check(lambda r: (r.video(), r.captions(), r.frames("video", self.pictures),
                              r.frames("subtitle", [b"\x61\2\0\xfc\x94\x20"], start=100)),
                   "hdlr-caption", "mdhd-alone")

    def test_an_empty_caption_packet(self):
        self.check(lambda r: (r.video(), r.captions(2), r.frames("video", self.pictures),
                              r.frames("subtitle", [b"\x61\1\0"], start=100)),
                   "hdlr-caption", "mdhd-alone")

    def test_units_of_no_bytes(self):
        tail = b"\0\0\0\1\0\0\0\1\6\5\1\0\x80"
        self.check(lambda r: (r.video(), r.frames("video", [p + tail for p in self.pictures])),
                   "nal-empty")

    def test_a_rate_that_its_field_cannot_hold(self):
        frames = transport_frames(96000)
        self.check(lambda r: (r.audio(), r.frames("audio", frames, step=512)), "aac-rate-cut")

    def test_keys_with_and_without_values(self):
        def make(r):
            r.video()
            r.frames("video", self.pictures)
            for value in (b"v", None):
                LIBRARY.mp4_set_metadata(r.handle, b"com.a", value)
            LIBRARY.mp4_set_metadata_ex(r.handle, b"com.i", b"\1\2\3\4", 4, 21, None)
            LIBRARY.mp4_set_metadata_ex(r.handle, b"com.x", b"zz", 2, 7, b"ab")
            LIBRARY.mp4_set_metadata(r.handle, b"album_artist", b"Q")
        self.check(make)


if __name__ == "__main__":
    unittest.main(verbosity=2)
