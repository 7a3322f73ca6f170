"""Files of FFmpeg, of GStreamer and of the recorder, made once and kept for all tests of a run."""
import os
import subprocess

from programs import ffmpeg, run

VIDEO = "testsrc2=size=160x120:rate=25:duration=2"
TONE = "sine=sample_rate=48000:duration=2"
PICTURES = ["-f", "lavfi", "-i", VIDEO]
SOUND = ["-f", "lavfi", "-i", TONE]
BOTH = [*PICTURES, *SOUND]
H264 = ["-c:v", "libx264", "-preset", "fast", "-bf", "2", "-g", "12"]
HEVC = ["-c:v", "libx265", "-preset", "ultrafast", "-x265-params", "log-level=none:keyint=12"]
AAC = ["-c:a", "aac"]
PLAIN = {  # without B-frames, as a camera has them
    "h264": ["-c:v", "libx264", "-preset", "ultrafast", "-bf", "0", "-g", "10"],
    "hevc": ["-c:v", "libx265", "-preset", "ultrafast", "-x265-params",
             "bframes=0:keyint=10:open-gop=0:log-level=none"],
    "prores": ["-c:v", "prores_ks", "-profile:v", "2"],
    "prores4444": ["-c:v", "prores_ks", "-profile:v", "4444", "-pix_fmt", "yuv444p10"],
}
FRAGMENTS = ["-movflags", "+frag_keyframe+empty_moov"]
SRT = """1
00:00:00,200 --> 00:00:00,900
Hello

2
00:00:01,000 --> 00:00:01,500
World
"""
CHAPTERS = """;FFMETADATA1
title=T
[CHAPTER]
TIMEBASE=1/1000
START=0
END=1000
title=one
[CHAPTER]
TIMEBASE=1/1000
START=1000
END=2000
title=two
"""
SCC = """Scenarist_SCC V1.0

00:00:00:08\t9420 9420 94ae 94ae 9470 9470 c8e5 ecec ef80 942f 942f
"""

# What FFmpeg's muxers write: the name of the file and the arguments before it.
OF_FFMPEG = {
    "h264.mp4": [*BOTH, *H264, *AAC],
    "faststart.mp4": [*BOTH, *H264, *AAC, "-movflags", "+faststart"],
    "fragments.mp4": [*BOTH, *H264, *AAC, *FRAGMENTS],
    "fragments_of_moof.mp4": [*BOTH, *H264, *AAC, "-movflags",
                              "+frag_keyframe+empty_moov+default_base_moof"],
    "fragments_behind.mp4": [*BOTH, *H264, *AAC, "-movflags", "+frag_keyframe"],
    "dash.mp4": [*BOTH, *H264, *AAC, "-movflags", "+frag_keyframe+dash+global_sidx"],
    "cmaf.mp4": [*BOTH, *H264, *AAC, "-movflags", "+cmaf+frag_keyframe"],
    "negative_offsets.mp4": [*BOTH, *H264, *AAC, "-movflags", "+negative_cts_offsets"],
    "no_edits.mp4": [*BOTH, *H264, *AAC, "-use_editlist", "0"],
    "h264.mov": [*BOTH, *H264, *AAC],
    "open_gop.mp4": [*BOTH, *H264, "-x264-params", "open-gop=1", *AAC],
    "high_422_mono.mp4": [*BOTH, *H264, "-pix_fmt", "yuv422p10le", *AAC, "-ac", "1"],
    "fields_timecode.mov": [*BOTH, *H264, "-flags", "+ildct+ilme", "-x264-params", "tff=1", *AAC,
                            "-ac", "6", "-timecode", "10:00:00:00"],
    "timecode.mp4": [*BOTH, *H264, *AAC, "-timecode", "10:00:00:00"],
    "drop_frames.mov": ["-f", "lavfi", "-i", "testsrc2=size=162x122:rate=30000/1001:duration=2",
                        "-pix_fmt", "yuv420p", *H264, "-timecode", "10:00:00;00", "-aspect",
                        "16:9"],
    "hevc.mp4": [*BOTH, *HEVC, *AAC],
    "hvc1.mov": [*BOTH, *HEVC, "-tag:v", "hvc1", *AAC],
    "hvc1_10.mp4": [*BOTH, *HEVC, "-pix_fmt", "yuv420p10le", "-tag:v", "hvc1", *AAC],
    "hevc_layers.mp4": [*BOTH, "-c:v", "libx265", "-preset", "ultrafast", "-x265-params",
                        "log-level=none:temporal-layers=1:bframes=3:b-adapt=0", *AAC],
    "prores.mov": [*BOTH, "-c:v", "prores_ks", "-profile:v", "3", "-c:a", "pcm_s16le"],
    "prores4444.mov": [*BOTH, "-c:v", "prores_ks", "-profile:v", "4444", "-pix_fmt",
                       "yuva444p10", "-c:a", "pcm_s24le"],
    "prores_aac.mov": [*BOTH, "-c:v", "prores", *AAC],
    "aac_96000.mp4": [*PICTURES, "-f", "lavfi", "-i", "sine=sample_rate=96000:duration=2", "-c:v",
                      "mpeg4", *AAC, "-ar", "96000"],
    "alac.mov": [*BOTH, "-c:v", "mjpeg", "-c:a", "alac"],
    "ac3.mp4": [*BOTH, *H264, "-c:a", "ac3"],
    "flac.mp4": [*BOTH, *H264, "-c:a", "flac", "-strict", "-2"],
    "two_sounds.mp4": [*BOTH, "-map", "0", "-map", "1", "-map", "1", *H264, *AAC],
    "hints.mp4": [*BOTH, *H264, *AAC, "-movflags", "+rtphint"],
    "room_in_front.mp4": [*BOTH, *H264, *AAC, "-moov_size", "20000"],
    "tags.mp4": [*BOTH, *H264, *AAC, "-metadata", "title=T", "-metadata", "com.x=1", "-movflags",
                 "use_metadata_tags"],
    "tags.mov": [*BOTH, *H264, *AAC, "-metadata", "title=T", "-metadata", "make=1"],
    "late_sound.mp4": ["-itsoffset", "0.7", *BOTH, *H264, *AAC],
    "variable_rate.mp4": [*PICTURES, "-vf", "select='not(mod(n,3))+gt(n,30)'", "-vsync", "vfr",
                          *H264],
    "one_picture.mp4": [*PICTURES, "-frames:v", "1", *H264],
    "sound.m4a": [*SOUND, *AAC],
    "colours.mov": [*BOTH, *H264, *AAC, "-movflags", "+write_colr", "-color_primaries", "bt709"],
    "text.mp4": [*BOTH, "-i", "{srt}", *H264, *AAC, "-c:s", "mov_text"],
    "text.mov": [*BOTH, "-i", "{srt}", *H264, *AAC, "-c:s", "mov_text"],
    "chapters.mp4": [*BOTH, "-i", "{chapters}", "-map_metadata", "2", *H264, *AAC],
    "chapters.mov": [*BOTH, "-i", "{chapters}", "-map_metadata", "2", *H264, *AAC],
    "cut.mp4": ["-ss", "0.52", "-i", "{h264.mp4}", "-c", "copy"],
    "smooth.ismv": ["-i", "{h264.mp4}", "-c", "copy", "-f", "ismv"],
    "phone.3gp": ["-i", "{h264.mp4}", "-c", "copy", "-f", "3gp"],
    "captions.mov": ["-i", "{scc}", "-map", "0", "-c", "copy"],
}

_PICTURES = ["videotestsrc", "num-buffers=50", "!",
             "video/x-raw,width=160,height=120,framerate=25/1", "!"]
_SOUND = ["audiotestsrc", "num-buffers=90", "samplesperbuffer=1024", "!",
          "audio/x-raw,rate=48000,channels=2", "!"]
_AAC = [*_SOUND, "avenc_aac", "!", "aacparse", "!", "m."]
_H264 = [*_PICTURES, "x264enc", "key-int-max=12", "bframes=2", "!", "h264parse", "!", "m."]
_HEVC = [*_PICTURES, "x265enc", "!", "h265parse", "!", "m."]
# What GStreamer's muxers write: the muxer with its properties, and what goes into it.
OF_GSTREAMER = {
    "g_h264.mp4": (["mp4mux"], [*_H264, *_AAC]),
    "g_faststart.mp4": (["mp4mux", "faststart=true"], [*_H264, *_AAC]),
    "g_fragments.mp4": (["mp4mux", "fragment-duration=500"], [*_H264, *_AAC]),
    "g_hevc.mp4": (["mp4mux"], [*_HEVC, *_AAC]),
    "g_text.mp4": (["mp4mux"], [*_H264, "filesrc", "location={srt}", "!", "subparse", "!", "m."]),
    "g_sound.m4a": (["mp4mux"], [*_AAC]),
    "g_h264.mov": (["qtmux"], [*_H264, *_AAC]),
    "g_hevc.mov": (["qtmux"], [*_HEVC, *_AAC]),
    "g_prores.mov": (["qtmux"], [*_PICTURES, "avenc_prores_ks", "!", "m.", *_SOUND, "m."]),
    "g_timecode.mov": (["qtmux"], [*_PICTURES, "timecodestamper", "set=always", "!", "x264enc",
                                   "!", "h264parse", "!", "m."]),
    "g_robust.mov": (["qtmux", "reserved-max-duration=10000000000",
                      "reserved-moov-update-period=500000000"], [*_H264, *_AAC]),
    "g_phone.3gp": (["3gppmux"], [*_H264, *_AAC]),
}


class Media:
    """Makes files in a folder when they are asked for."""

    def __init__(self, folder, kvmp4):
        self.folder = folder
        self.kvmp4 = kvmp4

    def path(self, name):
        return os.path.join(self.folder, name)

    def _text(self, name, content):
        path = self.path(name)
        with open(path, "w") as file:
            file.write(content)
        return path

    def _named(self, argument):
        if not argument.startswith(("{", "location={")):
            return argument
        before, _, name = argument.partition("{")
        name = name.rstrip("}")
        texts = {"srt": SRT, "chapters": CHAPTERS, "scc": SCC}
        path = (self._text("text." + name.replace("chapters", "ffmeta"), texts[name])
                if name in texts else self.of_ffmpeg(name))
        return before + path

    def of_ffmpeg(self, name):
        path = self.path(name)
        if not os.path.exists(path):
            ffmpeg(*map(self._named, OF_FFMPEG[name]), path)
        return path

    def of_gstreamer(self, name):
        path = self.path(name)
        if not os.path.exists(path):
            muxer, inputs = OF_GSTREAMER[name]
            result = run("gst-launch-1.0", "-q", "-e", *muxer, "name=m", "!", "filesink",
                         f"location={path}", *map(self._named, inputs))
            if result.returncode or "ERROR" in result.stderr:
                raise AssertionError(result.stderr)
        return path

    def camera(self, codec):
        """What a recording is made of. No name holds "mov"."""
        path = self.path(f"camera_{codec}.mkv")
        if not os.path.exists(path):
            ffmpeg(*BOTH, *PLAIN[codec], *AAC, "-ac", "2", path)
        return path

    def scc(self):
        return self._text("text.scc", SCC)

    def recorded(self, name, codec, *options):
        """In the short forms but where the options ask for the long ones."""
        path = self.path(name)
        if not os.path.exists(path):
            short = [f"--no-{form}" for form in ("large-file", "version1")
                     if f"--{form}" not in options]
            result = subprocess.run([self.kvmp4, "record", "-i", self.camera(codec), "-o", path,
                                     *short, *options], capture_output=True, text=True,
                                    stdin=subprocess.DEVNULL, timeout=120)
            if result.returncode:
                raise AssertionError(result.stderr)
        return path
