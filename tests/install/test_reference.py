#!/usr/bin/env python3
"""The API reference is made from the public header without a complaint, and names all of it: each
enumerator (which Doxygen forgives) has a description, each function all its parameters and its
result. Headers that lack a word prove that the complaints are heard.

    test_reference.py SOURCES DOXYFILE
"""
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as xml

SOURCES, DOXYFILE = map(pathlib.Path, sys.argv[1:3])
HEADER = (SOURCES / "include/kv_mp4.h").read_text()


class Reference(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = pathlib.Path(scratch.name)

    def made(self, old="", new=""):
        """Doxygen's exit code and complaints on the header with a text replaced."""
        self.assertTrue(not old or HEADER.count(old) == 1, old)
        header = self.folder / "kv_mp4.h"
        header.write_text(HEADER.replace(old, new) if old else HEADER)
        settings = (DOXYFILE.read_text() +
                    f"\nINPUT = {header}\nOUTPUT_DIRECTORY = {self.folder}\n")
        result = subprocess.run(["doxygen", "-"], input=settings, capture_output=True, text=True)
        return result.returncode, result.stderr

    def members(self, kind):
        tree = xml.parse(self.folder / "xml/kv__mp4_8h.xml")
        return [member for member in tree.iter("memberdef") if member.get("kind") == kind]

    def test_the_reference_is_made_without_a_complaint(self):
        self.assertEqual(self.made(), (0, ""))
        self.assertTrue((self.folder / "api/index.html").exists())

    def test_it_holds_every_function_with_parameters_and_result(self):
        self.made()
        functions = self.members("function")
        self.assertEqual(len(functions), 35)
        for function in functions:
            name = function.findtext("name")
            described = [item.findtext("parameternamelist/parametername")
                         for item in function.iter("parameteritem")]
            self.assertEqual(described, [p.findtext("declname") for p in function.iter("param")],
                             name)
            self.assertIsNotNone(function.find(".//simplesect[@kind='return']"), name)

    def test_every_enumerator_has_a_description(self):
        self.made()
        values = [value for enum in self.members("enum") for value in enum.iter("enumvalue")]
        self.assertEqual(len(values), len(re.findall(r"^ {4}MP4_\w+ = ", HEADER, re.MULTILINE)))
        for item in values + self.members("enum"):
            text = "".join(part for kind in ("briefdescription", "detaileddescription")
                           for part in item.find(kind).itertext())
            self.assertTrue(text.strip(), item.findtext("name"))

    def test_a_parameter_without_a_word_is_an_error(self):
        code, said = self.made(" * @param interval video frames, 10 or more; 900 at first\n")
        self.assertEqual(code, 1)
        self.assertIn("parameter 'interval'", said)

    def test_a_result_without_a_word_is_an_error(self):
        code, said = self.made(" * @return MP4_OK; else the status of the first failed write */",
                               " */")
        self.assertEqual(code, 1)
        self.assertIn("mp4_close_file", said)

    def test_a_function_without_a_word_is_an_error(self):
        code, said = self.made("/** Announces the sound.", "/* Announces the sound.")
        self.assertEqual(code, 1)
        self.assertIn("mp4_set_audio_track", said)

    def test_a_field_without_a_word_is_an_error(self):
        code, said = self.made(" /**< the tmcd entry's number of frames */")
        self.assertEqual(code, 1)
        self.assertIn("frames_per_second", said)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
