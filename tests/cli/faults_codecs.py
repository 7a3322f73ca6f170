"""Faults of sample descriptions and of the samples themselves."""
from faults import A, ENTRY, HEVC, PRORES, SOUND, STBL, V, fault, simple

AVCC = ENTRY + "/avcC"
HVCC = HEVC + "/hvcC"
ESDS = SOUND + "/esds"

# ---- H.264

simple("no_avcc", "own", "avcc-missing", "stsd/avc1$", lambda e: e.remove(AVCC))
simple("avcc_of_version_2", "own", "avcc-version", "avcC$", lambda e: e.put(AVCC, 8, 2, 1))
simple("other_constraints", "own", "avcc-compatibility", "avcC$", lambda e: e.flip(AVCC, 10, 2))
simple("another_level", "own", "avcc-level", "avcC$", lambda e: e.flip(AVCC, 11, 1))
simple("avcc_without_its_ones", "own", "avcc-reserved", "avcC$", lambda e: e.flip(AVCC, 12, 0x80))
simple("lengths_of_three_bytes", "own", "avcc-length-size", "avcC$", lambda e: e.flip(AVCC, 12, 1))
simple("lengths_of_two_bytes", "own", "nal-empty", "stbl/stco$", lambda e: e.flip(AVCC, 12, 2))
simple("an_sps_that_is_none", "own", "avcc-sps", "avcC$", lambda e: e.flip(AVCC, 16, 1))
simple("an_sps_too_long", "own", "avcc-length", "avcC$", lambda e: e.put(AVCC, 14, 5000, 2))
simple("a_pps_that_is_none", "own", "avcc-pps", "avcC$",
       lambda e: e.flip(AVCC, 16 + e.get(AVCC, 14, 2) + 3, 2))
simple("bytes_behind_avcc", "own", "avcc-length", "avcC$", lambda e: e.append(AVCC, b"\1\2"))


@fault("own", "avcc-parameter-sets", "avcC$")
def no_pps(e):
    begin, end = e.span(AVCC)
    at = 16 + e.get(AVCC, 14, 2)
    e.splice(AVCC, at, end - begin - at, b"\0")


simple("another_chroma_format", "high", "avcc-chroma", "avcC$",
       lambda e: e.flip(AVCC, e.get(AVCC, 0) - 4, 1))
simple("another_depth", "high", "avcc-depth", "avcC$",
       lambda e: e.flip(AVCC, e.get(AVCC, 0) - 3, 1))
simple("a_picture_wider_than_coded", "own", "picture-size", "stsd/avc1$",
       lambda e: e.put(ENTRY, 32, 176, 2))
simple("a_picture_of_no_height", "own", "picture-size", "stsd/avc1$",
       lambda e: e.put(ENTRY, 34, 0, 2))
simple("a_track_wider_than_its_picture", "own", "tkhd-picture", "trak.1./tkhd$",
       lambda e: e.put(V + "/tkhd", 84, 176 << 16))
simple("half_a_pixel_aspect", "prores", "pixel-aspect", "apcn/pasp$",
       lambda e: e.put(PRORES + "/pasp", 8, 0))


@fault("own", "nal-length", "stbl/stco$")
def a_unit_longer_than_its_sample(e):
    e.data[e.sample(V) + 2] += 2


@fault("own", "nal-header", "stbl/stco$")
def a_unit_that_is_forbidden(e):
    e.data[e.sample(V) + 4] |= 0x80


# ---- HEVC

simple("no_hvcc", "hevc", "hvcc-missing", "stsd/hev1$", lambda e: e.remove(HVCC))
simple("hvcc_of_version_0", "hevc", "hvcc-version", "hvcC$", lambda e: e.put(HVCC, 8, 0, 1))
simple("another_hevc_profile", "hevc", "hvcc-profile", "hvcC$", lambda e: e.flip(HVCC, 9, 2))
simple("another_hevc_tier", "hevc", "hvcc-tier", "hvcC$", lambda e: e.flip(HVCC, 9, 0x20))
simple("a_lower_hevc_level", "hevc", "hvcc-level", "hvcC$", lambda e: e.add(HVCC, 20, -3, 1))
simple("compatible_with_more", "hevc", "hvcc-compatibility", "hvcC$",
       lambda e: e.put(HVCC, 10, 2 ** 32 - 1))
simple("no_temporal_layer_but_more", "layers", "hvcc-layers", "hvcC$",
       lambda e: e.put(HVCC, 29, e.get(HVCC, 29, 1) & ~0x38 | 0x08, 1))
simple("hvcc_without_its_ones", "hevc", "hvcc-reserved", "hvcC$", lambda e: e.flip(HVCC, 21, 0x80))
simple("another_hevc_chroma", "hevc", "hvcc-chroma", "hvcC$", lambda e: e.flip(HVCC, 24, 1))
simple("another_hevc_depth", "hevc", "hvcc-depth", "hvcC$", lambda e: e.flip(HVCC, 25, 2))
simple("hevc_lengths_of_three_bytes", "hevc", "hvcc-length-size", "hvcC$",
       lambda e: e.flip(HVCC, 29, 1))
simple("hevc_lengths_of_two_bytes", "hevc", "nal-empty", "stbl/stco$",
       lambda e: e.flip(HVCC, 29, 2))
simple("an_entry_of_no_codec", "own", "sample-entry-unknown", "stsd/abcd$",
       lambda e: e.retype(ENTRY, b"abcd"))
simple("an_array_of_another_type", "hevc", "hvcc-array", "hvcC$", lambda e: e.flip(HVCC, 31, 1))
simple("an_array_beyond_its_box", "hevc", "hvcc-length", "hvcC$", lambda e: e.put(HVCC, 32, 900, 2))
simple("bytes_behind_hvcc", "hevc", "hvcc-length", "hvcC$", lambda e: e.append(HVCC, b"\0"))
simple("hvc1_without_its_sets", "hevc", "hvcc-parameter-sets", "hvcC$",
       lambda e: (e.splice(HVCC, 31, e.get(HVCC, 0) - 31),
                  e.put(HVCC, 30, 0, 1), e.retype(HEVC, b"hvc1")))


@fault("hevc", "hvcc-sps", "hvcC$")
def a_hevc_sps_that_cannot_be_read(e):
    begin = e.begin(HVCC)
    e.put(HVCC, e.data.index(b"\x42\x01", begin + 31) - begin + 15, 0, 6)


simple("a_hevc_picture_of_another_size", "hevc", "picture-size", "stsd/hev1$",
       lambda e: e.put(HEVC, 34, 64, 2))
simple("a_hevc_key_frame_that_is_none", "hevc", "sync-not-key", "stbl/stco$",
       lambda e: e.add(STBL + "/stss", 20, 1))

# ---- ProRes


@fault("prores", "prores-frame", "stbl/stco$")
def a_frame_of_another_size(e):
    e.data[e.sample(V) + 3] ^= 1


@fault("prores", "prores-frame", "stbl/stco$")
def a_frame_without_its_mark(e):
    e.data[e.sample(V) + 4] ^= 1


@fault("prores", "picture-size", "stbl/stco$")
def a_frame_of_another_width(e):
    e.data[e.sample(V) + 17] ^= 2


@fault("prores", "prores-chroma", "stbl/stco$")
def a_frame_of_4444(e):
    e.data[e.sample(V) + 20] |= 0xC0


# ---- AAC

simple("no_esds", "own", "esds-missing", "stsd/mp4a$", lambda e: e.remove(ESDS))
simple("no_audio_object", "own", "esds-object-type", "mp4a/esds$",
       lambda e: e.put(ESDS, 25, 0x20, 1))
simple("a_stream_of_pictures", "own", "esds-stream-type", "mp4a/esds$",
       lambda e: e.put(ESDS, 26, 0x11, 1))
simple("a_descriptor_too_long", "own", "esds-length", "mp4a/esds$",
       lambda e: e.put(ESDS, 16, 90, 1))
simple("a_descriptor_of_another_kind", "own", "esds-length", "mp4a/esds$",
       lambda e: e.put(ESDS, 20, 9, 1))
simple("no_sync_layer", "own", "esds-sl", "mp4a/esds$", lambda e: e.put(ESDS, 50, 0, 1))
simple("a_configuration_of_a_reserved_rate", "own", "aac-config", "mp4a/esds$",
       lambda e: e.put(ESDS, 43, 0x1690, 2))
simple("a_configuration_of_no_object", "own", "aac-config", "mp4a/esds$",
       lambda e: e.put(ESDS, 43, 0x0190, 2))
simple("a_configuration_of_reserved_channels", "own", "aac-config", "mp4a/esds$",
       lambda e: e.put(ESDS, 43, 0x11C0, 2))
simple("a_configuration_of_another_rate", "own", "aac-rate", "stsd/mp4a$",
       lambda e: e.put(ESDS, 43, 0x1210, 2))
simple("an_entry_of_another_rate", "own", "aac-rate", "stsd/mp4a$",
       lambda e: e.put(SOUND, 32, 44100, 2))
simple("an_entry_of_other_channels", "own", "aac-channels", "stsd/mp4a$",
       lambda e: e.put(SOUND, 24, 6, 2))


@fault("own", "adts-in-sample", "trak.2./mdia/minf/stbl/stco$")
def a_transport_frame(e):
    size = e.get(A + "/mdia/minf/stbl/stsz", 20)
    header = 0xFFF14C80001FFC | size << 13
    e.data[e.sample(A):e.sample(A) + 7] = header.to_bytes(7, "big")


# ---- Time code, captions, text

TMCD = "moov/trak[3]/mdia/minf/stbl/stsd/tmcd"
CAPTIONS = "moov/trak[4]"
simple("frames_that_do_not_fit_their_duration", "tracks", "tmcd-rate", "stsd/tmcd$",
       lambda e: e.put(TMCD, 32, 10, 1))
simple("frames_of_no_duration", "tracks", "tmcd-rate", "stsd/tmcd$", lambda e: e.put(TMCD, 28, 0))
simple("a_time_code_of_three_bytes", "tracks", "tmcd-sample", "stbl/stco$",
       lambda e: e.put("moov/trak[3]/mdia/minf/stbl/stsz", 12, 3))
simple("a_caption_atom_too_long", "tracks", "caption-sample", "stbl/stco$",
       lambda e: e.data.__setitem__(e.sample(CAPTIONS) + 3, 90))
simple("a_caption_handler_of_the_other_kind", "tracks", "media-header", "minf/gmhd$",
       lambda e: e.put(CAPTIONS + "/mdia/hdlr", 12, int.from_bytes(b"mhlrvide", "big"), 8))
simple("a_text_too_long", "text", "text-sample", "stbl/stco$",
       lambda e: e.data.__setitem__(e.sample("moov/trak[3]", 2), 40))
