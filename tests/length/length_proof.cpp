// A day of 1080p60 with AAC by a clock of its own, into an output that keeps only the index; the
// tables on either side of 4 GiB; durations beyond 32 bits. The library's objects are linked in, so
// that all memory that they hold is counted (--wrap, and operator new).
//
//   length_proof [HOURS]
#include "faults/scenario.h"
#include "length/sizes.h"
#include "support/boxes.h"
#include "support/recording.h"

#include <kv_mp4.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

long long g_held = 0;  // bytes
long long g_most = 0;  // of them at any time

void* Count(void* data)
{
    g_held += static_cast<long long>(kvtest::SizeOf(data));
    g_most = std::max(g_most, g_held);
    return data;
}

void Discount(void* data)
{
    g_held -= static_cast<long long>(kvtest::SizeOf(data));
}

}  // namespace

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* data, std::size_t size);
void __real_free(void* data);

void* __wrap_malloc(std::size_t size)
{
    return Count(__real_malloc(size));
}
void* __wrap_calloc(std::size_t count, std::size_t size)
{
    return Count(__real_calloc(count, size));
}
void* __wrap_realloc(void* data, std::size_t size)
{
    // Both at once, as where the old one cannot be extended in its place.
    const auto before = static_cast<long long>(kvtest::SizeOf(data));
    void* const grown = Count(__real_realloc(data, size));
    if (grown)
        g_held -= before;
    return grown;
}
void __wrap_free(void* data)
{
    Discount(data);
    __real_free(data);
}
}

void* operator new(std::size_t size)
{
    void* const data = __wrap_malloc(size);
    if (!data)
        throw std::bad_alloc();
    return data;
}
void operator delete(void* data) noexcept
{
    __wrap_free(data);
}
void operator delete(void* data, std::size_t) noexcept
{
    __wrap_free(data);
}

namespace kvtest {

namespace {

constexpr std::uint64_t k4GiB = std::uint64_t{1} << 32;

int g_wrong = 0;

template <typename T, typename U>
bool Equal(const std::string& what, T is, U wanted)
{
    if (static_cast<std::uint64_t>(is) == static_cast<std::uint64_t>(wanted))
        return true;
    if (++g_wrong <= 20)
        std::fprintf(stderr, "%s: %llu, not %llu\n", what.c_str(),
                     static_cast<unsigned long long>(is), static_cast<unsigned long long>(wanted));
    return false;
}

// ---- The output ----------------------------------------------------------------------------

// Keeps what stands at its beginning and, once told so, all that comes behind the data. Its bytes
// are not read in between, so that a frame may be announced larger than its buffer.
class IndexSink {
public:
    IndexSink()
    {
        m_table.open = [](void** context, const wchar_t*, std::uint32_t,
                          std::uint32_t) -> std::uint8_t {
            *context = s_next;
            return 1;
        };
        m_table.close = [](void*) {};
        m_table.tell = [](void* context) { return static_cast<std::int64_t>(Of(context).m_position); };
        m_table.seek = [](void* context, std::int64_t offset, std::int32_t) {
            Of(context).m_position = static_cast<std::uint64_t>(offset);
        };
        m_table.flush = [](void*) {};
        m_table.write = [](void* context, const void* bytes, std::uint32_t size) -> std::int32_t {
            Of(context).Write(static_cast<const std::uint8_t*>(bytes), size);
            return 1;
        };
    }
    IndexSink(const IndexSink&) = delete;
    IndexSink& operator=(const IndexSink&) = delete;

    ExternalIoFuncs* Table()
    {
        s_next = this;
        return &m_table;
    }
    // From here on all is kept.
    void KeepIndex(std::size_t expected)
    {
        m_end = m_position;
        m_index.reserve(expected);
    }
    std::uint64_t End() const { return m_end; }
    std::uint64_t IndexSize() const { return m_index.size(); }
    BoxFile Head() const { return BoxFile(m_head); }
    BoxFile Index() const { return BoxFile(m_index); }

private:
    static IndexSink& Of(void* context) { return *static_cast<IndexSink*>(context); }

    void Write(const std::uint8_t* bytes, std::uint32_t size)
    {
        if (m_position + size <= m_head.size())
            std::memcpy(m_head.data() + m_position, bytes, size);
        if (m_position >= m_end) {
            const auto at = static_cast<std::size_t>(m_position - m_end);
            if (m_index.size() < at + size)
                m_index.resize(at + size);
            std::memcpy(m_index.data() + at, bytes, size);
        }
        m_position += size;
    }

    static inline IndexSink* s_next = nullptr;
    ExternalIoFuncs m_table{};
    std::uint64_t m_position = 0;
    std::uint64_t m_end = ~std::uint64_t{0};
    Bytes m_head = Bytes(52);
    Bytes m_index;
};

mp4_handle Open(IndexSink& sink, std::uint8_t flags)
{
    mp4_handle file = nullptr;
    Equal("create", mp4_create_file_adv(L"day.mp4", flags, 0, 0, MP4_IO_EXTERNAL, sink.Table(), &file),
          0u);
    return file;
}

// The size of mdat, whole with the flag, its low 32 bits without.
void CheckMdat(const std::string& what, const IndexSink& sink, bool large)
{
    const BoxFile head = sink.Head();
    const std::uint64_t size = sink.End() - 36;
    Equal(what + "the size field of mdat", head.U32(36), large ? 1 : size % k4GiB);
    if (large)
        Equal(what + "the 64-bit size of mdat", head.U64(44), size);
}

// ---- The day -------------------------------------------------------------------------------

enum { kPicture, kSound };

struct Event {
    int track;
    std::uint64_t number;
    std::uint32_t size;  // of the sample
    bool key;
};

// Pictures and sound in the order of their times; a picture ahead of sound of the same time.
class Clock {
public:
    explicit Clock(std::uint64_t hours) : m_hours(hours) {}

    bool Next(Event& event)
    {
        const std::uint64_t end = m_hours * 3600 * 48000;
        const std::uint64_t picture = m_pictures * 800;  // 60 a second, in 1/48000 s
        const std::uint64_t sound = m_sounds * 1024;
        if (picture >= end && sound >= end)
            return false;
        if (picture <= sound && picture < end)
            event = {kPicture, m_pictures, 4 + PictureSize(m_pictures), m_pictures % 60 == 0};
        else
            event = {kSound, m_sounds, 1900 + static_cast<std::uint32_t>(m_sounds % 5) * 50, false};
        ++(event.track == kPicture ? m_pictures : m_sounds);
        return true;
    }
    static std::uint32_t PictureSize(std::uint64_t n)
    {
        return 9 + static_cast<std::uint32_t>(n % 7);
    }

private:
    std::uint64_t m_hours;
    std::uint64_t m_pictures = 0;
    std::uint64_t m_sounds = 0;
};

// A table whose memory at least doubles, in steps of a kibibyte.
struct Growth {
    std::uint64_t used = 0;
    std::uint64_t held = 0;
    // What it holds as well for the moment, while it moves to a larger store.
    std::uint64_t Add(std::uint64_t bytes)
    {
        used += bytes;
        const std::uint64_t before = held;
        if (used <= held)
            return 0;
        held = (2 * used + 1023) / 1024 * 1024;
        return before;
    }
};

// What the tables of a track must be, as the samples come.
struct Expected {
    std::uint64_t samples = 0;
    std::uint64_t chunks = 0;
    std::uint64_t keys = 0;
    std::uint32_t inChunk = 0;
    Growth stsz, offsets, stss;

    // As Growth's; of one table, as each moves on its own.
    std::uint64_t Add(const Event& event, bool newChunk, bool large)
    {
        ++samples;
        std::uint64_t moving = stsz.Add(4);
        if (newChunk)
            moving = std::max(moving, offsets.Add(large ? 8 : 4));
        chunks += newChunk;
        if (event.key)
            moving = std::max(moving, stss.Add(4));
        keys += event.key;
        return moving;
    }
    // By the formula: 4 bytes a sample, 4 or 8 and 4 a chunk, 4 a key frame.
    std::uint64_t Used() const { return stsz.used + offsets.used + 4 * chunks + stss.used; }
    std::uint64_t Held() const { return stsz.held + offsets.held + 4 * chunks + stss.held; }
};

// A track's tables in a finished index, read on as the samples come again.
class Tables {
public:
    Tables(const BoxFile& file, const char* track, bool large)
        : m_file(file), m_name(track), m_large(large)
    {
        const std::string stbl = "moov/" + m_name + "/mdia/minf/stbl/";
        m_stts = file.Find(stbl + "stts").begin;
        m_stsz = file.Find(stbl + "stsz").begin;
        m_stsc = file.Find(stbl + "stsc").begin;
        m_offsets = file.Find(stbl + (large ? "co64" : "stco")).begin;
    }

    void Add(const Event& event, bool newChunk, std::uint64_t position)
    {
        Equal(m_name + " size of sample " + std::to_string(m_samples + 1),
              m_file.U32(m_stsz + 20 + 4 * m_samples), event.size);
        ++m_samples;
        if (!newChunk) {
            ++m_inChunk;
            return;
        }
        EndChunk();
        const std::size_t at = m_offsets + 16 + (m_large ? 8 : 4) * m_chunks;
        Equal(m_name + " offset of chunk " + std::to_string(m_chunks + 1),
              m_large ? m_file.U64(at) : m_file.U32(at), m_large ? position : position % k4GiB);
        ++m_chunks;
        m_inChunk = 1;
    }
    void End(std::uint32_t delta)
    {
        EndChunk();
        Equal(m_name + " samples", m_file.U32(m_stsz + 16), m_samples);
        Equal(m_name + " chunks", m_file.U32(m_offsets + 12), m_chunks);
        Equal(m_name + " entries of stsc", m_file.U32(m_stsc + 12), m_entries);
        Equal(m_name + " entries of stts", m_file.U32(m_stts + 12), 1u);
        Equal(m_name + " count of stts", m_file.U32(m_stts + 16), m_samples);
        Equal(m_name + " delta of stts", m_file.U32(m_stts + 20), delta);
    }

private:
    void EndChunk()
    {
        if (m_inChunk == 0 || m_inChunk == m_lastLength)
            return;
        const std::size_t at = m_stsc + 16 + 12 * m_entries++;
        Equal(m_name + " first chunk of an stsc entry", m_file.U32(at), m_chunks);
        Equal(m_name + " samples of an stsc entry", m_file.U32(at + 4), m_inChunk);
        m_lastLength = m_inChunk;
    }

    const BoxFile& m_file;
    std::string m_name;
    bool m_large;
    std::size_t m_stts, m_stsz, m_stsc, m_offsets;
    std::uint32_t m_samples = 0;
    std::uint32_t m_chunks = 0;
    std::uint32_t m_entries = 0;
    std::uint32_t m_inChunk = 0;
    std::uint32_t m_lastLength = 0;
};

void SetTracks(mp4_handle file)
{
    mp4_video_track_info video{};
    video.timescale = 90000;
    video.codec = MP4_VIDEO_H264;
    video.width = 1920;
    video.height = 1080;
    video.sps = Sps().data();
    video.sps_size = static_cast<std::int16_t>(Sps().size());
    video.pps = Pps().data();
    video.pps_size = static_cast<std::int16_t>(Pps().size());
    Equal("video track", mp4_set_video_track(file, &video), 0u);
    const mp4_audio_track_info audio{48000, 1024, MP4_AUDIO_AAC_RAW, 48000, 2, 2};
    Equal("audio track", mp4_set_audio_track(file, &audio), 0u);
}

std::uint32_t Write(mp4_handle file, const Event& event)
{
    static const Bytes picture = Hex("00000001 65 88848080808080808080808080808080");
    static const Bytes other = Hex("00000001 41 9A848080808080808080808080808080");
    static const std::uint8_t sound[16] = {0x21, 0x10};
    if (event.track == kSound)
        return mp4_write_audio_frame(file, sound, event.size, event.number * 1024);
    return mp4_write_video_frame(file, (event.key ? picture : other).data(), event.size,
                                 event.number * 1500);
}

void CheckDurations(const BoxFile& file, bool longForm, std::uint64_t hours)
{
    const std::uint64_t ms = hours * 3600 * 1000;
    const std::uint64_t ticks = hours * 3600 * 90000;
    const auto at = [&](const char* box) { return file.Find(box).begin; };
    const std::size_t mvhd = at("moov/mvhd");
    const std::size_t mdhd = at("moov/trak.vide/mdia/mdhd");
    Equal("version of mdhd", file.All()[mdhd + 8], longForm ? 1 : 0);
    Equal("movie duration", longForm ? file.U64(mvhd + 32) : file.U32(mvhd + 24), ms);
    Equal("picture duration", longForm ? file.U64(mdhd + 32) : file.U32(mdhd + 24),
          longForm ? ticks : ticks % k4GiB);
}

// What writing so many entries of stsc takes at most: they go out in blocks of 64 KiB.
std::uint64_t StscBlock(std::uint64_t entries)
{
    Growth block;
    std::uint64_t most = 0;
    for (const int field : {4, 4, 4, 4})
        block.Add(static_cast<std::uint64_t>(field));
    for (; entries > 0 && block.used + 12 <= 0x10000; --entries) {
        const std::uint64_t moving = block.Add(12);
        most = std::max(most, block.held + moving);
    }
    return most;
}

void CheckMemory(const char* when, long long held, std::uint64_t wanted)
{
    const auto rule = static_cast<long long>(wanted);
    const bool near = held >= rule - rule / 50 && held <= rule + rule / 50;
    g_wrong += !near;
    std::fprintf(stderr, "  memory %s: %lld bytes, %+.2f %% beside %lld%s\n", when, held,
                 100.0 * static_cast<double>(held - rule) / static_cast<double>(rule), rule,
                 near ? "" : ": too far");
}

void ProveDay(std::uint64_t hours, std::uint8_t flags)
{
    const bool large = (flags & MP4_OPEN_LARGE_FILE) != 0;
    IndexSink sink;
    const mp4_handle file = Open(sink, flags);
    SetTracks(file);
    const long long before = g_most = g_held;
    Expected expected[2];
    const auto rule = [&expected] { return expected[0].Held() + expected[1].Held(); };
    std::uint64_t most = 0;
    Event event{};
    int last = -1;
    for (Clock clock(hours); clock.Next(event); last = event.track) {
        if (!Equal("frame", Write(file, event), 0u))
            return;
        const std::uint64_t moving = expected[event.track].Add(event, event.track != last, large);
        if (moving != 0)
            most = std::max(most, rule() + moving);
    }
    const auto used = expected[0].Used() + expected[1].Used();
    std::fprintf(stderr, "%llu hours, flags 0x%02X: tables of %llu bytes\n",
                 static_cast<unsigned long long>(hours), flags,
                 static_cast<unsigned long long>(used));
    const long long held = g_held - before;
    CheckMemory("at the end", held, rule());
    CheckMemory("at most", g_most - before, std::max(most, rule()));
    sink.KeepIndex(3 * used);
    const long long others = g_most = g_held;  // the sink's, too
    Equal("close", mp4_close_file(file), 0u);
    const long long closing = g_most - others + held;

    const std::string what = large ? "large: " : "not large: ";
    CheckMdat(what, sink, large);
    const BoxFile index = sink.Index();
    // With the fast header the index stands in memory whole before it is handed over.
    const bool staged = (flags & MP4_OPEN_FAST_HEADER) != 0;
    const std::size_t stsc = index.Find("moov/trak.vide/mdia/minf/stbl/stsc").begin;
    CheckMemory("in the close", closing,
                rule() + StscBlock(index.U32(stsc + 12)) + (staged ? sink.IndexSize() : 0));
    Tables tables[2] = {{index, "trak.vide", large}, {index, "trak.soun", large}};
    std::uint64_t position = large ? 52 : 44;
    last = -1;
    for (Clock clock(hours); clock.Next(event); last = event.track) {
        tables[event.track].Add(event, event.track != last, position);
        position += event.size;
    }
    tables[0].End(1500);
    tables[1].End(1024);
    Equal("end of the data", sink.End(), position);
    const std::size_t stss = index.Find("moov/trak.vide/mdia/minf/stbl/stss").begin;
    Equal("key frames", index.U32(stss + 12), expected[0].keys);
    CheckDurations(index, (flags & MP4_OPEN_VERSION1) != 0, hours);
    std::fprintf(stderr, "  %llu samples in %llu chunks, %.1f GB of data\n",
                 static_cast<unsigned long long>(expected[0].samples + expected[1].samples),
                 static_cast<unsigned long long>(expected[0].chunks + expected[1].chunks),
                 static_cast<double>(position) / 1e9);
}

// ---- 4 GiB ---------------------------------------------------------------------------------

// Sound begins at 4 GiB and so many bytes, and each track behind it follows.
void ProveBoundary(int beyond, bool large)
{
    const std::string what = "4 GiB " + std::to_string(beyond) + (large ? ", large: " : ": ");
    IndexSink sink;
    const mp4_handle file = Open(sink, large ? MP4_OPEN_LARGE_FILE : 0);
    mp4_video_track_info video{};
    video.codec = MP4_VIDEO_PRORES;
    video.width = 1920;
    video.height = 1080;
    mp4_set_video_track(file, &video);
    const mp4_audio_track_info audio{1000, 40, MP4_AUDIO_AAC_RAW, 48000, 2, 2};
    mp4_set_audio_track(file, &audio);
    const mp4_subtitle_track_info captions{MP4_SUBTITLE_CEA608, 1000};
    mp4_set_subtitle_track(file, &captions);
    const mp4_time_code_track_info timeCode{25, 1, 25, 0};
    mp4_set_time_code_track(file, &timeCode);

    const std::uint8_t bytes[16] = {0x21};
    const Bytes caption = Hex("61 02 01 00 94 20");  // a sample of 10 bytes
    const std::uint64_t data = large ? 52 : 44;
    const std::uint64_t border = k4GiB + static_cast<std::uint64_t>(beyond);
    const auto half = static_cast<std::uint32_t>((border - data) / 2);
    mp4_write_video_frame(file, bytes, half, 0);
    mp4_write_video_frame(file, bytes, static_cast<std::uint32_t>(border - data - half), 40);
    mp4_write_audio_frame(file, bytes, 100, 0);
    mp4_write_subtitle_frame(file, caption.data(), static_cast<std::uint32_t>(caption.size()), 0);
    mp4_write_time_code(file, 1);
    mp4_write_video_frame(file, bytes, 50, 80);
    sink.KeepIndex(0);
    Equal(what + "close", mp4_close_file(file), 0u);

    CheckMdat(what, sink, large);
    Equal(what + "end of the data", sink.End(), border + 164);
    const BoxFile index = sink.Index();
    const auto offset = [&](const std::string& track, std::uint32_t n, std::uint64_t wanted) {
        // Captions have 32 bits in any file.
        const bool wide = large && track != "trak.clcp";
        const std::size_t at = index.Find("moov/" + track + "/mdia/minf/stbl/" +
                                          (wide ? "co64" : "stco")).begin + 16;
        Equal(what + track, wide ? index.U64(at + 8 * n) : index.U32(at + 4 * n),
              wide ? wanted : wanted % k4GiB);
    };
    offset("trak.vide", 0, data);
    offset("trak.soun", 0, border);
    offset("trak.clcp", 0, border + 100);
    offset("trak.tmcd", 0, border + 110);
    offset("trak.vide", 1, border + 114);
}

// ---- Durations -----------------------------------------------------------------------------

// Five pictures and five pieces of sound, each 2^31 ms behind the last.
void ProveDuration(bool longForm)
{
    const std::string what = longForm ? "long: " : "not long: ";
    IndexSink sink;
    const mp4_handle file = Open(sink, longForm ? MP4_OPEN_VERSION1 : 0);
    mp4_video_track_info video{};
    video.codec = MP4_VIDEO_PRORES;
    mp4_set_video_track(file, &video);
    const mp4_audio_track_info audio{1000, 0, MP4_AUDIO_AAC_RAW, 48000, 2, 2};
    mp4_set_audio_track(file, &audio);
    const std::uint8_t bytes[16] = {0x21};
    for (std::uint64_t n = 0; n < 5; ++n) {
        mp4_write_video_frame(file, bytes, 16, n << 31);
        mp4_write_audio_frame(file, bytes, 16, n << 31);
    }
    const std::uint64_t duration = std::uint64_t{5} << 31;
    Equal(what + "duration", mp4_get_duration_ms(file), duration);
    sink.KeepIndex(0);
    Equal(what + "close", mp4_close_file(file), 0u);

    const BoxFile index = sink.Index();
    const auto check = [&](const std::string& box, std::size_t wide, std::size_t narrow) {
        const std::size_t at = index.Find("moov/" + box).begin;
        Equal(what + box + " version", index.All()[at + 8], longForm ? 1 : 0);
        Equal(what + box, longForm ? index.U64(at + wide) : index.U32(at + narrow),
              longForm ? duration : duration % k4GiB);
    };
    check("mvhd", 32, 24);
    for (const std::string track : {"trak.vide/", "trak.soun/"}) {
        check(track + "tkhd", 36, 28);
        check(track + "edts/elst", 16, 16);
        check(track + "mdia/mdhd", 32, 24);
        const std::size_t stts = index.Find("moov/" + track + "mdia/minf/stbl/stts").begin;
        Equal(what + track + "stts count", index.U32(stts + 16), 5u);
        Equal(what + track + "stts delta", index.U32(stts + 20), std::uint64_t{1} << 31);
    }
}

}  // namespace

}  // namespace kvtest

int main(int count, char** words)
{
    using namespace kvtest;
    char* rest = nullptr;
    const long long hours = count > 1 ? std::strtoll(words[1], &rest, 10) : 24;
    if (count > 2 || hours <= 0 || hours > 2000 || (rest && *rest != '\0')) {
        std::fputs("length_proof [HOURS]    1 to 2000 hours\n", stderr);
        return 2;
    }
    const Quiet quiet;
    for (const int flags : {0, MP4_OPEN_LARGE_FILE | MP4_OPEN_VERSION1, int{MP4_OPEN_FAST_HEADER}})
        ProveDay(static_cast<std::uint64_t>(hours), static_cast<std::uint8_t>(flags));
    for (const int beyond : {-200, -101, -100, -1, 0, 1, 200})
        for (const bool large : {false, true})
            ProveBoundary(beyond, large);
    for (const bool longForm : {false, true})
        ProveDuration(longForm);
    std::fprintf(stderr, "length: %d wrong\n", g_wrong);
    return g_wrong != 0;
}
