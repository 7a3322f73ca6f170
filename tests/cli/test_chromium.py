#!/usr/bin/env python3
"""A recording with all four tracks, played by headless Chromium: every picture decoded, none
dropped.

    test_chromium.py KVMP4

Exits with 77, which means skipped, where Chromium is not installed.
"""
import http.server
import json
import os
import queue
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest

from programs import InFolder

SKIPPED = 77
FRAMES = 120
RATE = "30000/1001"

# Slow play leaves a busy machine time for each picture.
PAGE = b"""<!doctype html><title>player</title><video muted playsinline></video><script>
const video = document.querySelector("video");
const answer = result => fetch("/answer", {method: "POST", body: JSON.stringify(result)});
video.onerror = () => answer({error: video.error.message});
video.onended = () => {
    const quality = video.getVideoPlaybackQuality();
    answer({decoded: quality.totalVideoFrames, dropped: quality.droppedVideoFrames,
            width: video.videoWidth, height: video.videoHeight, seconds: video.duration,
            sound: video.webkitAudioDecodedByteCount});
};
video.src = "/file";
video.playbackRate = 0.5;
video.play().catch(error => answer({error: String(error)}));
</script>"""


def must(*command):
    result = subprocess.run(command, capture_output=True, text=True, stdin=subprocess.DEVNULL,
                            timeout=300)
    if result.returncode:
        raise AssertionError(f"{command[0]}: {result.stderr}")


class Handler(http.server.BaseHTTPRequestHandler):
    """The page, the recording with ranges, and the page's answer."""

    def do_GET(self):
        body, kind = (PAGE, "text/html") if self.path == "/" else (self.server.file, "video/mp4")
        if self.path not in ("/", "/file"):
            self.send_error(404)
            return
        first, last = 0, len(body) - 1
        wanted = self.headers.get("Range", "")
        if wanted.startswith("bytes="):
            start, _, end = wanted[6:].partition("-")
            first, last = int(start), min(int(end or last), last)
            self.send_response(206)
            self.send_header("Content-Range", f"bytes {first}-{last}/{len(body)}")
        else:
            self.send_response(200)
        self.send_header("Accept-Ranges", "bytes")
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(last + 1 - first))
        self.end_headers()
        try:
            self.wfile.write(body[first:last + 1])
        except ConnectionError:
            pass  # the browser has seen enough of this range

    def do_POST(self):
        answer = self.rfile.read(int(self.headers["Content-Length"]))
        self.send_response(204)
        self.end_headers()
        self.server.answers.put(json.loads(answer))

    def log_message(self, *_):
        pass


def play(browser, content, profile):
    """What the browser says when it has come to the end of a file."""
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler) as server:
        server.file = content
        server.answers = queue.Queue()
        threading.Thread(target=server.serve_forever, daemon=True).start()
        process = subprocess.Popen(
            [browser, "--headless", "--no-sandbox", "--disable-gpu", "--mute-audio",
             "--no-first-run", "--disable-extensions", "--disable-dev-shm-usage",
             "--autoplay-policy=no-user-gesture-required", f"--user-data-dir={profile}",
             f"http://127.0.0.1:{server.server_address[1]}/"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            return server.answers.get(timeout=120)
        finally:
            process.terminate()
            process.wait(timeout=60)
            server.shutdown()


class Chromium(InFolder):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        must("ffmpeg", "-v", "error", "-f", "lavfi", "-i", f"testsrc2=size=320x240:rate={RATE}",
             "-f", "lavfi", "-i", "sine=sample_rate=48000", "-t", "4.004", "-c:v", "libx264",
             "-bf", "0", "-pix_fmt", "yuv420p", "-c:a", "aac", cls.path("source.ts"))
        with open(cls.path("captions.scc"), "w") as file:
            file.write("Scenarist_SCC V1.0\n\n00:00:01:00\t9420 9420 9470 9470 c8e5 942f\n\n"
                       "00:00:03:00\t942c 942c\n")

    def recorded(self, kind):
        output = self.path(f"all.{kind}")
        must(KVMP4, "record", "-y", "-i", self.path("source.ts"), "-i", self.path("captions.scc"),
             "-o", output, "--timecode", "10:00:00;00")
        with open(output, "rb") as file:
            content = file.read()
        for entry in (b"avc1", b"mp4a", b"tmcd", b"c608"):
            self.assertIn(entry, content[content.rindex(b"moov"):])
        return content

    def play(self, content):
        # The browser's helpers may outlive it by a moment and write on.
        with tempfile.TemporaryDirectory(dir=self.folder.name,
                                         ignore_cleanup_errors=True) as profile:
            return play(BROWSER, content, profile)

    def test_every_picture_is_decoded_and_none_dropped(self):
        for kind in ("mp4", "mov"):
            with self.subTest(kind=kind):
                answer = self.play(self.recorded(kind))
                self.assertNotIn("error", answer)
                self.assertEqual((answer["decoded"], answer["dropped"]), (FRAMES, 0))
                self.assertEqual((answer["width"], answer["height"]), (320, 240))
                self.assertGreater(answer["sound"], 0)

    def test_a_file_without_its_index_is_refused(self):
        content = self.recorded("mp4")
        self.assertIn("error", self.play(content[:content.rindex(b"moov") - 4]))


if __name__ == "__main__":
    KVMP4 = os.path.abspath(sys.argv.pop(1))
    BROWSER = shutil.which("chromium")
    if not BROWSER:
        print("skipped: chromium is not installed")
        sys.exit(SKIPPED)
    unittest.main(verbosity=2)
