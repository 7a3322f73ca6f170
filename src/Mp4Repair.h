// Turns a media file whose writer died into a playable one, from its info file alone: the log's
// packets are replayed into a fresh tree, with the calls that the recording made, and `moov` goes
// behind the last sample that the log knows. The media file is never read; of it only the size
// counts.
#pragma once

#include "big_endian.h"
#include "info_format.h"
#include "moov.h"

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>

class CMp4Repair {
public:
    CMp4Repair() = default;
    ~CMp4Repair();
    CMp4Repair(const CMp4Repair&) = delete;
    CMp4Repair& operator=(const CMp4Repair&) = delete;

    // Repairs the media file `path` and returns a status; one run per object. With an `option` that
    // is not 0 the info file goes after a run that ended with status 0. Throws nothing.
    std::uint32_t Repair(const wchar_t* path, std::uint8_t option);

    // Reads one packet and applies it to the tree. The end of the log is an exception as well.
    void ReadNextPacket();

private:
    void Rebuild(bool quickTime, std::int64_t& end, std::uint32_t& status);
    void MakeTree(bool quickTime);
    std::int64_t WriteMoov(std::uint32_t mdatPosition, bool large, std::int64_t fileSize);

    void ReadMetadata();
    void ReadVideoTrack();
    void ReadAudioTrack();
    void ReadVideoFrame();
    void ReadAudioFrame();
    void ReadSubtitleTrack();
    void ReadSubtitleFrame();
    void ReadTimeCodeTrack();
    void ReadTimeCode();

    // One field, big-endian; 0 when the reader is not open.
    template <typename T>
    T Field();
    // `size` bytes of the log and a zero byte behind them, held until the packet is done.
    RefBuffer* ReadBlob(std::uint32_t size);
    // A length and its bytes; null for none.
    const std::uint8_t* SizedBlob(std::uint32_t& size);
    const std::uint8_t* ParameterSet(std::int16_t& size);
    // Moves on behind a sample and returns where it begins.
    std::uint64_t Place(std::uint32_t size);

    std::unique_ptr<CMp4MoovAtom> m_moov;  // null outside Repair
    CAppendFileWriter m_writer;            // the media file
    CFastFileReader m_reader;              // the info file
    std::uint64_t m_nextOffset = 0;        // file position of the next packet's sample
    std::uint8_t m_videoSeen = 0;          // a VideoTrack packet was met, whole or not
    std::uint8_t m_audioSeen = 0;
    CReadBufferPool m_pool;
    std::list<RefBuffer*> m_packetBuffers;  // blobs of the packet in hand
    // Sum of the video, audio and caption sizes. Kept apart from m_nextOffset: time codes move on
    // without counting here.
    std::uint64_t m_mediaBytes = 0;
};

template <typename T>
T CMp4Repair::Field()
{
    if (!m_reader.IsOpen())
        return 0;
    std::uint8_t bytes[sizeof(T)];
    m_reader.Read(bytes, sizeof(T));
    return LoadBE<T>(bytes);
}
