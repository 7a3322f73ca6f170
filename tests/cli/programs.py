"""Programs that the tests of kvmp4 run."""
import subprocess


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, stdin=subprocess.DEVNULL,
                          timeout=120, **options)


def ffmpeg(*arguments):
    result = run("ffmpeg", "-v", "error", "-y", *arguments)
    if result.returncode:
        raise AssertionError(result.stderr)
