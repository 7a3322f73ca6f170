"""Faults of headers, tables and fragments."""
from boxes import box
from faults import A, ENTRY, STBL, V, fault, simple

# ---- Headers and durations

simple("no_movie_timescale", "own", "mvhd-timescale", "^moov/mvhd$",
       lambda e: e.put("moov/mvhd", 20, 0))
simple("the_next_track_id_is_taken", "own", "mvhd-next-track-id", "^moov/mvhd$",
       lambda e: e.put("moov/mvhd", 104, 2))
simple("two_tracks_of_an_id", "own", "track-id-taken", "trak.2./tkhd$",
       lambda e: e.put(A + "/tkhd", 20, 1))
simple("a_track_without_an_id", "own", "track-id-zero", "trak.2./tkhd$",
       lambda e: e.put(A + "/tkhd", 20, 0))
simple("no_media_timescale", "own", "mdhd-timescale", "mdia/mdhd$",
       lambda e: e.put(V + "/mdia/mdhd", 20, 0))
simple("media_twice_as_long", "own", "mdhd-duration", "mdia/mdhd$",
       lambda e: e.put(V + "/mdia/mdhd", 24, 2 * e.get(V + "/mdia/mdhd", 24)))
simple("media_without_a_length", "own", "mdhd-duration", "mdia/mdhd$",
       lambda e: e.put(V + "/mdia/mdhd", 24, 0))
simple("a_track_longer_than_its_edits", "own", "tkhd-duration", "trak.1./tkhd$",
       lambda e: e.add(V + "/tkhd", 28, 100))
simple("a_track_of_another_length_than_its_media", "own", "tkhd-duration", "trak.1./tkhd$",
       lambda e: (e.remove(V + "/edts"), e.add(V + "/tkhd", 28, 100)))
simple("an_edit_three_times_as_long", "own", "elst-beyond", "edts/elst$",
       lambda e: e.put(V + "/edts/elst", 16, 3 * e.get(V + "/edts/elst", 16)))
simple("an_edit_behind_the_media", "own", "elst-beyond", "edts/elst$",
       lambda e: e.put(V + "/edts/elst", 20, 10 ** 6))
simple("an_edit_at_no_time", "own", "elst-time", "edts/elst$",
       lambda e: e.put(V + "/edts/elst", 20, 0xFFFFFFFE))
simple("an_edit_at_double_speed", "own", "elst-rate", "edts/elst$",
       lambda e: e.put(V + "/edts/elst", 24, 0x20000))
simple("two_edits_counted", "own", "table-length", "edts/elst$",
       lambda e: e.put(V + "/edts/elst", 12, 2))
simple("a_reference_to_no_track", "tracks", "tref-track", "tref/tmcd$",
       lambda e: e.put(V + "/tref/tmcd", 8, 77))

# ---- Tables

simple("times_that_go_back", "own", "stts-delta", "stbl/stts$",
       lambda e: e.put(STBL + "/stts", 20, 0xFFFFFFF0))
simple("a_run_of_no_times", "ffmpeg", "stts-empty-run", "stbl/stts$",
       lambda e: (e.append(STBL + "/stts", bytes(8)), e.add(STBL + "/stts", 12, 1)))
simple("time_counts_one_less", "own", "stts-samples", "stbl/stts$",
       lambda e: e.add(STBL + "/stts", 16, -1))
simple("offsets_count_one_more", "ffmpeg", "ctts-samples", "stbl/ctts$",
       lambda e: e.add(STBL + "/ctts", 16, 1))
simple("a_run_of_no_offsets", "ffmpeg", "ctts-empty-run", "stbl/ctts$",
       lambda e: (e.append(STBL + "/ctts", bytes(8)), e.add(STBL + "/ctts", 12, 1)))
simple("a_negative_offset_of_version_0", "ffmpeg", "ctts-version", "stbl/ctts$",
       lambda e: e.put(STBL + "/ctts", 20, 0xFFFFFE00))
simple("two_pictures_at_one_time", "ffmpeg", "ctts-collision", "stbl/ctts$",
       lambda e: e.add(STBL + "/ctts", 20, 512))
simple("chunks_begin_with_the_second", "own", "stsc-first", "stbl/stsc$",
       lambda e: e.put(STBL + "/stsc", 16, 2))
simple("runs_of_chunks_out_of_order", "ffmpeg", "stsc-order", "trak.2./mdia/minf/stbl/stsc$",
       lambda e: e.put(A + "/mdia/minf/stbl/stsc", 28, 1))
simple("a_run_of_chunks_that_are_not_there", "ffmpeg", "stsc-chunk", "stbl/stsc$",
       lambda e: e.put(A + "/mdia/minf/stbl/stsc", 28, 1000))
simple("chunks_without_samples", "ffmpeg", "stsc-empty", "stbl/stsc$",
       lambda e: e.put(A + "/mdia/minf/stbl/stsc", 20, 0))
simple("a_description_that_is_not_there", "own", "sample-description", "stbl/stsc$",
       lambda e: e.put(STBL + "/stsc", 24, 2))
simple("a_sample_more_in_each_chunk", "own", "stsc-samples", "stbl/stsc$",
       lambda e: e.add(STBL + "/stsc", 20, 1))


@fault("own", "stsc-samples", "stbl/stsc$")
def a_chunk_less(e):
    e.add(STBL + "/stco", 12, -1)
    begin, end = e.span(STBL + "/stco")
    e.splice(STBL + "/stco", end - begin - 4, 4)


simple("a_chunk_at_zero", "own", "sample-outside-mdat", "stbl/stco$",
       lambda e: e.put(STBL + "/stco", 16, 0))
simple("a_chunk_in_the_movie", "own", "sample-outside-mdat", "stbl/stco$",
       lambda e: e.put(STBL + "/stco", 16, e.begin("moov") + 8))
simple("a_chunk_behind_the_file", "own", "sample-outside-mdat", "stbl/stco$",
       lambda e: e.put(STBL + "/stco", 16, len(e.data) + 8))
simple("the_last_sample_leaves_mdat", "ffmpeg", "sample-outside-mdat", "stbl/stco$",
       lambda e: e.put(STBL + "/stco", 16 + 4 * (e.get(STBL + "/stco", 12) - 1),
                       e.begin("moov") - 2))
simple("two_chunks_at_one_place", "own", "sample-overlap", "stbl/stco$",
       lambda e: e.put(STBL + "/stco", 20, e.get(STBL + "/stco", 16)))
simple("chunks_of_two_tracks_at_one_place", "own", "sample-overlap", "stbl/stco$",
       lambda e: e.put(A + "/mdia/minf/stbl/stco", 16, e.sample(V)))
simple("a_sample_a_byte_longer", "own", "nal-length", "stbl/stco$",
       lambda e: e.add(STBL + "/stsz", 20, 1))
simple("a_list_behind_a_common_size", "own", "table-length", "stbl/stsz$",
       lambda e: e.put(STBL + "/stsz", 12, 100))
simple("more_sizes_than_there_is_room_for", "own", "table-length", "stbl/stsz$",
       lambda e: e.put(STBL + "/stsz", 16, 0xFFFFFFFF))
simple("more_chunks_than_there_is_room_for", "own", "table-length", "stbl/stco$",
       lambda e: e.put(STBL + "/stco", 12, 0xFFFFFFFF))
simple("key_frames_out_of_order", "own", "stss-order", "stbl/stss$",
       lambda e: e.put(STBL + "/stss", 20, 1))
simple("a_key_frame_behind_the_end", "own", "stss-range", "stbl/stss$",
       lambda e: e.put(STBL + "/stss", 16 + 4 * (e.get(STBL + "/stss", 12) - 1), 500))
simple("a_key_frame_that_is_none", "own", "sync-not-key", "stbl/stco$",
       lambda e: e.add(STBL + "/stss", 20, 1))
simple("a_key_frame_left_out", "own", "sync-missing", "stbl/stco$",
       lambda e: (e.splice(STBL + "/stss", 20, 4), e.add(STBL + "/stss", 12, -1)))
simple("no_table_of_key_frames", "own", "sync-not-key", "stbl/stco$",
       lambda e: e.remove(STBL + "/stss"))
simple("dependencies_of_other_samples", "ffmpeg", "sdtp-samples", "stbl/sdtp$",
       lambda e: e.append(STBL, box(b"sdtp", bytes(4 + e.get(STBL + "/stsz", 16) + 1))))
simple("groups_of_more_samples", "ffmpeg", "sbgp-samples", "stbl/sbgp$",
       lambda e: e.add(A + "/mdia/minf/stbl/sbgp", 20, 5))
simple("a_data_reference_that_is_not_there", "own", "data-reference", "stsd/avc1$",
       lambda e: e.put(ENTRY, 14, 2, 2))
simple("an_entry_of_another_kind", "own", "sample-entry", "stsd/mp4a$",
       lambda e: e.retype(ENTRY, b"mp4a"))

# ---- Fragments

FRAGMENT = "moof[2]/traf[1]"
simple("fragments_out_of_order", "fragments", "mfhd-sequence", "mfhd$",
       lambda e: e.put("moof[2]/mfhd", 12, 1))
simple("a_fragment_of_no_track", "fragments", "tfhd-track", "tfhd$",
       lambda e: e.put(FRAGMENT + "/tfhd", 12, 9))
simple("a_fragment_header_that_is_long", "fragments", "box-length", "tfhd$",
       lambda e: e.put(FRAGMENT + "/tfhd", 8, e.get(FRAGMENT + "/tfhd", 8) & ~8))
simple("a_fragment_of_no_description", "fragments", "sample-description", "tfhd$",
       lambda e: e.put("moov/mvex/trex[1]", 16, 5))
simple("a_fragment_before_the_last", "fragments", "tfdt-order", "tfdt$",
       lambda e: e.put(FRAGMENT + "/tfdt", 12, 1, 8))
simple("a_run_that_counts_more", "fragments", "table-length", "trun$",
       lambda e: e.add(FRAGMENT + "/trun", 12, 1))
simple("a_run_two_bytes_further", "fragments", "nal-length", "trun$",
       lambda e: e.add(FRAGMENT + "/trun", 16, 2))
simple("a_run_outside_mdat", "fragments", "sample-outside-mdat", "trun$",
       lambda e: e.put(FRAGMENT + "/trun", 16, 20))
simple("no_defaults_of_a_track", "fragments", "trex-missing", "traf",
       lambda e: e.put("moov/mvex/trex[1]", 12, 9))
simple("no_extension_of_the_movie", "fragments", "mvex-missing", "moof",
       lambda e: e.retype("moov/mvex", b"free"))
simple("an_access_point_that_is_none", "fragments", "tfra-offset", "mfra/tfra",
       lambda e: e.add("mfra/tfra[1]", 32, 1, 8))
simple("access_points_of_no_track", "fragments", "tfra-track", "mfra/tfra",
       lambda e: e.put("mfra/tfra[1]", 12, 9))
simple("access_points_that_are_miscounted", "fragments", "table-length", "mfra/tfra",
       lambda e: e.add("mfra/tfra[1]", 20, 1))
simple("the_wrong_size_at_the_end", "fragments", "mfro-size", "mfra/mfro$",
       lambda e: e.add("mfra/mfro", 12, 1))
simple("no_fragment_header", "fragments", "box-missing", "moof.2.$",
       lambda e: e.retype("moof[2]/mfhd", b"free"))
simple("no_track_fragment_header", "fragments", "box-missing", "moof.2./traf",
       lambda e: e.retype(FRAGMENT + "/tfhd", b"free"))
simple("an_index_that_points_beside", "segments", "sidx-reference", "sidx",
       lambda e: e.add("sidx[1]", 40, 1))
simple("an_index_that_is_miscounted", "segments", "table-length", "sidx",
       lambda e: e.add("sidx[1]", 38, 1, 2))
simple("fragments_promise_more", "promised", "mehd-duration", "mvex/mehd$",
       lambda e: e.put("moov/mvex/mehd", 12, 90000000))
