#!/usr/bin/env python3
"""Records H.264 video through the library from Python, with nothing but ctypes.

    record.py camera.h264 take1.mp4 [TITLE]

The pictures come at 25 a second and begin with an access unit delimiter each, as FFmpeg writes them
with `-c:v libx264 -bf 0 -x264-params aud=1`. A write that fails outside the guarded calls (a
checkpoint, a ProRes picture) ends the process, as Python knows no exceptions of C++.
"""
import ctypes
import re
import sys
from ctypes import POINTER, Structure, byref, c_char_p, c_int16, c_uint8, c_uint16, c_uint32, \
    c_uint64, c_void_p

MP4_OK, MP4_VIDEO_H264 = 0, 0


class VideoTrackInfo(Structure):
    """mp4_video_track_info; parameter sets left empty are taken from the stream."""
    _fields_ = [("timescale", c_uint32), ("sample_duration", c_uint64), ("codec", c_uint32),
                ("width", c_uint16), ("height", c_uint16), ("sps", c_void_p),
                ("sps_size", c_int16), ("pps", c_void_p), ("pps_size", c_int16),
                ("vps", c_void_p), ("vps_size", c_int16)]


class Mp4Error(Exception):
    """A status that is not MP4_OK."""


class Recording:
    """An open file; the end of its `with` closes it."""

    def __init__(self, path):
        self._library = ctypes.CDLL("libkv_mp4.so.1")
        # Without these, ctypes would cut handles and timestamps to 32 bits.
        signatures = {"mp4_create_file_ex": [c_char_p, c_uint8, POINTER(c_void_p)],
                      "mp4_set_video_track": [c_void_p, POINTER(VideoTrackInfo)],
                      "mp4_set_metadata": [c_void_p, c_char_p, c_char_p],
                      "mp4_write_video_frame": [c_void_p, c_char_p, c_uint32, c_uint64],
                      "mp4_close_file": [c_void_p]}
        for name, arguments in signatures.items():
            getattr(self._library, name).argtypes = arguments
            getattr(self._library, name).restype = c_uint32
        self._handle = c_void_p()
        self._call("mp4_create_file_ex", path.encode(), 0, byref(self._handle))

    def _call(self, name, *arguments):
        status = getattr(self._library, name)(*arguments)
        if status != MP4_OK:
            raise Mp4Error(f"{name}: status {status}")

    def __enter__(self):
        return self

    def __exit__(self, *failure):
        self._call("mp4_close_file", self._handle)

    def video(self, width, height, timescale):
        """Announces the video."""
        info = VideoTrackInfo(timescale=timescale, sample_duration=1, codec=MP4_VIDEO_H264,
                              width=width, height=height)
        self._call("mp4_set_video_track", self._handle, byref(info))

    def title(self, text):
        """Names the recording."""
        self._call("mp4_set_metadata", self._handle, b"title", text.encode())

    def picture(self, data, time):
        """Writes one picture; the library borrows the bytes for the call."""
        self._call("mp4_write_video_frame", self._handle, data, len(data), time)


def main():
    if len(sys.argv) not in (3, 4):
        sys.exit("usage: record.py VIDEO OUTPUT [TITLE]")
    with open(sys.argv[1], "rb") as camera:
        pictures = re.split(rb"(?=\x00\x00\x00\x01\x09)", camera.read())[1:]
    try:
        with Recording(sys.argv[2]) as recording:
            recording.video(320, 240, 25)
            if len(sys.argv) == 4:
                recording.title(sys.argv[3])
            for time, picture in enumerate(pictures):
                recording.picture(picture, time)
    except Mp4Error as failure:
        sys.exit(f"record.py: {failure}")


if __name__ == "__main__":
    main()
