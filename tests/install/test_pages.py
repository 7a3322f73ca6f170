#!/usr/bin/env python3
"""The man pages and the completion against what they describe: groff has nothing to say of the
pages, each page and the completion name the options of `kvmp4 COMMAND --help` and no other, and the
library's page names every function and status of the public header.

    test_pages.py SOURCES [KVMP4]
"""
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCES = pathlib.Path(sys.argv[1])
KVMP4 = sys.argv[2] if len(sys.argv) > 2 else None
PAGES = sorted((SOURCES / "docs/man").iterdir())
COMMANDS = ("record", "repair", "inspect", "verify")


def warnings(page):
    return subprocess.run(["groff", "-mandoc", "-ww", "-Tutf8", "-z", page], check=True,
                          capture_output=True, text=True).stderr


def helped(*command):
    """The options of a help's list, each long one with its short one, if any."""
    text = subprocess.run([KVMP4, *command, "--help"], check=True, capture_output=True,
                          text=True).stdout
    return {long: short for short, long in
            re.findall(r"(?:^  |,(?=--))(?:-(\w),)?--([\w-]+)", text.split("\nOptions:")[1],
                       re.MULTILINE)}


def described(page):
    text = (SOURCES / "docs/man" / page).read_text()
    return {long: short for short, long in
            re.findall(r"(?:^\.It |,(?= Fl -) )(?:Fl (\w) , )?Fl -([\w-]+)", text, re.MULTILINE)}


def completed(*words):
    script = (f'source {SOURCES}/packaging/kvmp4.bash; COMP_WORDS=("$@"); '
              'COMP_CWORD=$(($# - 1)); _kvmp4; printf "%s\\n" "${COMPREPLY[@]}"')
    return set(subprocess.run(["bash", "-c", script, "bash", "kvmp4", *words], check=True,
                              capture_output=True, text=True).stdout.split())


class Pages(unittest.TestCase):
    @unittest.skipUnless(shutil.which("groff"), "no groff")
    def test_groff_has_nothing_to_say(self):
        self.assertEqual(len(PAGES), 6)
        for page in PAGES:
            self.assertEqual(warnings(page), "", page)

    @unittest.skipUnless(shutil.which("groff"), "no groff")
    def test_groff_is_asked_for_its_warnings(self):
        with tempfile.NamedTemporaryFile("w", suffix=".1") as page:
            page.write(PAGES[0].read_text() + ".Nonsuch\n")
            page.flush()
            self.assertIn("Nonsuch", warnings(page.name))

    def test_the_page_of_the_library_names_what_the_header_declares(self):
        page = set(re.findall(r"\w+", (SOURCES / "docs/man/libkv_mp4.3").read_text()))
        header = (SOURCES / "include/kv_mp4.h").read_text()
        names = set(re.findall(r"\b((?:kv_)?mp4_\w+)\(", header))
        names |= set(re.findall(r"^    (MP4_(?:OK|ERR_\w+|OPEN_\w+)) =", header, re.MULTILINE))
        self.assertEqual(len(names), 35 + 19 + 5 + 1)  # and the exception's constructor
        self.assertEqual(names - page, set())
        written = {name for name in page if re.match(r"(kv_)?mp4_|MP4_", name)}
        self.assertEqual(written - set(re.findall(r"\w+", header)), set())

    def test_the_page_of_errors_has_a_row_for_every_status(self):
        header = (SOURCES / "include/kv_mp4.h").read_text()
        statuses = re.findall(r"^    (MP4_(?:OK|ERR_\w+)) = +(\d+)", header, re.MULTILINE)
        self.assertEqual(len(statuses), 19)
        page = (SOURCES / "docs/threads-and-errors.md").read_text()
        rows = re.findall(r"^\| (\d+) `(\w+)` \| [^|]+ \| [^|]+ \|$", page, re.MULTILINE)
        self.assertEqual([(name, number) for number, name in rows], statuses)


@unittest.skipUnless(KVMP4, "built without the tools")
class Options(unittest.TestCase):
    def test_each_page_describes_the_options_of_its_command(self):
        for command in COMMANDS:
            self.assertEqual(described(f"kvmp4-{command}.1"), helped(command), command)
        self.assertEqual(described("kvmp4.1"), helped())

    def test_the_completion_offers_the_options_of_each_command(self):
        for command in COMMANDS:
            self.assertEqual(completed(command, "--"),
                             {f"--{option}" for option in helped(command)}, command)

    def test_the_completion_offers_the_commands(self):
        self.assertEqual(completed(""), {*COMMANDS, "--help", "--version"})
        self.assertEqual(completed("rep"), {"repair"})

    def test_the_completion_offers_the_values_of_an_option(self):
        self.assertEqual(completed("record", "--safe-strategy", ""),
                         {"fixed", "linear", "stepped"})
        self.assertEqual(completed("record", "--captions", "a"), {"auto"})


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
