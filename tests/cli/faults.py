"""Faults to plant into sound files, each with what `kvmp4 verify` must say of it.

A fault is (name, source, code, path of the box as a pattern, change). The sources are named in
test_verify.py; all of those have moov behind mdat, so that boxes of moov can grow and shrink, but
the fragmented ones."""
import re
import struct

from boxes import Editor, box, children

FAULTS = []
V = "moov/trak[1]"
A = "moov/trak[2]"
STBL = V + "/mdia/minf/stbl"
ENTRY = STBL + "/stsd/avc1"
SOUND = A + "/mdia/minf/stbl/stsd/mp4a"
HEVC = STBL + "/stsd/hev1"
PRORES = STBL + "/stsd/apcn"


def fault(source, code, path):
    def keep(change):
        FAULTS.append((change.__name__, source, code, path, change))
        return change
    return keep


def simple(name, source, code, path, change):
    FAULTS.append((name, source, code, path, change))


# ---- The nine that other checkers were tried with

@fault("own", "nal-length", "stbl/stco$")
def chunk_offsets_one_further(e):
    for n in range(e.get(STBL + "/stco", 12)):
        e.add(STBL + "/stco", 16 + 4 * n, 1)


@fault("own", "stsc-samples", "stbl/stsc$")
def a_size_less(e):
    e.add(STBL + "/stsz", 16, -1)
    begin, end = e.span(STBL + "/stsz")
    e.splice(STBL + "/stsz", end - begin - 4, 4)


simple("a_size_less_but_its_bytes", "own", "table-length", "stbl/stsz$",
       lambda e: e.add(STBL + "/stsz", 16, -1))
simple("time_counts_five_more", "own", "stts-samples", "stbl/stts$",
       lambda e: e.add(STBL + "/stts", 16, 5))
simple("a_wrong_profile", "own", "avcc-profile", "avc1/avcC$",
       lambda e: e.flip(ENTRY + "/avcC", 9, 1))
simple("mdat_a_hundred_larger", "own", "mdat-size", "^mdat$", lambda e: e.add("mdat", 0, 100))
simple("stbl_three_larger", "own", "box-beyond-parent", "minf/stbl$", lambda e: e.add(STBL, 0, 3))
simple("a_destroyed_type", "own", "box-missing", "minf/stbl$",
       lambda e: e.retype(STBL + "/stts", b"s\0ts"))
simple("movie_ten_times_as_long", "own", "mvhd-duration", "^moov/mvhd$",
       lambda e: e.put("moov/mvhd", 24, e.get("moov/mvhd", 24) * 10))


@fault("own", "box-beyond-file", "^mdat$")
def cut_to_two_thirds(e):
    del e.data[len(e.data) * 2 // 3:]


# ---- Boxes

@fault("own", "box-missing", "^$")
def cut_before_the_movie(e):
    del e.data[e.begin("moov"):]


@fault("own", "box-beyond-file", "^moov$")
def cut_inside_the_movie(e):
    del e.data[-30:]


@fault("own", "box-trailing", "^$")
def bytes_behind_the_movie(e):
    e.data += b"\1\2\3"


@fault("own", "box-type", "")
def a_tail_of_other_bytes(e):
    e.data += bytes(range(1, 60))


@fault("own", "ftyp-order", "^ftyp$")
def the_brands_behind_the_rest(e):
    begin, end = e.span("ftyp")
    brands = bytes(e.data[begin:end])
    e.put("ftyp", 4, int.from_bytes(b"free", "big"))
    e.data += brands


@fault("own", "box-duplicate", "^moov$")
def two_movies(e):
    begin, end = e.span("moov")
    e.data += e.data[begin:end]


@fault("own", "box-duplicate", "stbl/stts")
def two_tables_of_a_kind(e):
    begin, end = e.span(STBL + "/stts")
    e.append(STBL, bytes(e.data[begin:end]))


@fault("own", "box-duplicate", "stbl/stco")
def both_kinds_of_chunk_table(e):
    count = e.get(STBL + "/stco", 12)
    offsets = [e.get(STBL + "/stco", 16 + 4 * n) for n in range(count)]
    e.append(STBL, box(b"co64", struct.pack(f">II{count}Q", 0, count, *offsets)))


@fault("own", "box-size", "trak.*/tkhd$")
def a_size_below_the_header(e):
    e.put(V + "/tkhd", 0, 4)


@fault("own", "box-size", "^mdat$")
def a_wide_size_below_the_header(e):
    e.put("mdat", 8, 12, 8)
    e.put("mdat", 0, 1)


@fault("own", "box-trailing", "^moov$")
def bytes_behind_the_last_box_of_the_movie(e):
    e.append("moov", b"\0\0\0\1\2")


@fault("own", "box-depth", "")
def boxes_without_end(e):
    nest = b""
    for _ in range(40):
        nest = box(b"trak", nest)
    e.append("moov", nest)


@fault("own", "box-count", "^$")
def more_boxes_than_any_file_has(e):
    e.data += box(b"free") * 1000001


@fault("own", "box-beyond-parent", "avc1/avcC$")
def a_configuration_beyond_its_entry(e):
    e.add(ENTRY + "/avcC", 0, 7)


simple("no_brands", "own", "ftyp-missing", "^$", lambda e: e.retype("ftyp", b"free"))
simple("an_unreadable_brand", "own", "ftyp-brand", "^ftyp$", lambda e: e.put("ftyp", 8, 0x01020304))
simple("brands_that_are_cut", "own", "box-length", "^ftyp$", lambda e: e.splice("ftyp", 20, 3))
simple("an_unknown_box", "own", "box-unknown", "^moov/abcd$",
       lambda e: e.append("moov", box(b"abcd")))
simple("a_box_in_a_wrong_place", "own", "box-place", "^moov/stts$",
       lambda e: e.append("moov", box(b"stts", bytes(8))))
simple("an_unknown_box_in_a_description", "own", "box-unknown", "avc1/abcd$",
       lambda e: e.append(ENTRY, box(b"abcd")))
simple("a_movie_header_of_version_2", "own", "box-version", "^moov/mvhd$",
       lambda e: e.put("moov/mvhd", 8, 2, 1))
simple("a_movie_header_that_is_short", "own", "box-length", "^moov/mvhd$",
       lambda e: e.splice("moov/mvhd", 84, 4))
simple("a_media_header_that_is_long", "own", "box-length", "mdia/mdhd$",
       lambda e: e.append(V + "/mdia/mdhd", bytes(4)))
simple("a_video_header_without_its_flag", "own", "box-flags", "minf/vmhd$",
       lambda e: e.put(V + "/mdia/minf/vmhd", 8, 0))
simple("a_track_header_with_flags_that_are_none", "own", "box-flags", "trak.1./tkhd$",
       lambda e: e.put(V + "/tkhd", 8, 0xFF))
simple("a_table_with_flags", "own", "box-flags", "stbl/stsz$",
       lambda e: e.put(STBL + "/stsz", 8, 7))
simple("a_matrix_of_zeros", "own", "matrix", "trak.1./tkhd$",
       lambda e: e.splice(V + "/tkhd", 48, 36, bytes(36)))
simple("a_matrix_that_tilts", "own", "matrix", "^moov/mvhd$", lambda e: e.put("moov/mvhd", 52, 1))
simple("a_movie_that_stands_still", "own", "mvhd-rate", "^moov/mvhd$",
       lambda e: e.put("moov/mvhd", 28, 0))
simple("a_movie_too_loud", "own", "mvhd-volume", "^moov/mvhd$",
       lambda e: e.put("moov/mvhd", 32, 0x4000, 2))
simple("a_language_of_no_letters", "own", "mdhd-language", "mdia/mdhd$",
       lambda e: e.put(V + "/mdia/mdhd", 28, 0x7BDF, 2))
simple("a_handler_nobody_knows", "own", "hdlr-type", "mdia/hdlr$",
       lambda e: e.put(V + "/mdia/hdlr", 16, int.from_bytes(b"xxxx", "big")))
simple("a_component_nobody_knows", "own", "hdlr-component", "mdia/hdlr$",
       lambda e: e.put(V + "/mdia/hdlr", 12, int.from_bytes(b"xxxx", "big")))
simple("a_name_without_an_end", "own", "hdlr-name", "mdia/hdlr$",
       lambda e: e.put(V + "/mdia/hdlr", 32, 50, 1))
simple("a_handler_of_the_other_kind", "own", "media-header", "minf/vmhd$",
       lambda e: e.put(V + "/mdia/hdlr", 16, int.from_bytes(b"soun", "big")))
simple("no_media_header", "own", "box-missing", "trak.1./mdia/minf$",
       lambda e: e.remove(V + "/mdia/minf/vmhd"))
for parent, kind in (("moov", "mvhd"), (V, "tkhd"), (V, "mdia"), (V + "/mdia", "mdhd"),
                     (V + "/mdia", "hdlr"), (V + "/mdia", "minf"), (V + "/mdia/minf", "dinf"),
                     (V + "/mdia/minf/dinf", "dref"), (V + "/mdia/minf", "stbl"), (STBL, "stsd"),
                     (STBL, "stts"), (STBL, "stsc"), (STBL, "stsz"), (STBL, "stco")):
    simple(f"no_{kind}", "own", "box-missing", re.escape(parent) + "$",
           lambda e, parent=parent, kind=kind: e.remove(f"{parent}/{kind}"))
simple("two_references_counted", "own", "entry-count", "dinf/dref$",
       lambda e: e.put(V + "/mdia/minf/dinf/dref", 12, 2))
simple("no_descriptions", "own", "entry-none", "stbl/stsd$", lambda e: e.remove(ENTRY))
simple("keys_that_are_miscounted", "own", "keys-count", "meta/keys$",
       lambda e: e.add("moov/udta/meta/keys", 12, 1))
simple("a_key_too_long", "own", "keys-count", "meta/keys$",
       lambda e: e.add("moov/udta/meta/keys", 16, 9))


@fault("own", "ilst-key", "meta/ilst/")
def a_value_of_no_key(e):
    begin, end = e.span("moov/udta/meta/ilst")
    last = [start for start, _, _ in children(e.data, begin + 8, end)][-1]
    e.data[last + 4:last + 8] = struct.pack(">I", 9)


@fault("own", "ilst-data", "meta/ilst/")
def an_item_without_a_value(e):
    begin, end = e.span("moov/udta/meta/ilst")
    first = next(children(e.data, begin + 8, end))[0]
    e.data[first + 12:first + 16] = b"free"
