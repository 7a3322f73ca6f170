// The repair as the model sees it: a log, a file, and what becomes of them.
#ifndef TESTS_MODEL_REPAIRER_H
#define TESTS_MODEL_REPAIRER_H

#include "model/muxer.h"
#include "model/tree.h"

#include <memory>
#include <optional>

namespace model {

class Repairer {
public:
    Repairer(Journal& journal, std::optional<Image> media, std::optional<Bytes> log)
        : m_journal(journal), m_media(std::move(media)), m_log(std::move(log))
    {
    }

    uint32_t Run(const Place& place, uint8_t option);

    uint64_t End() const { return m_end; }  // of the index
    std::optional<Image> Media() const { return m_media; }
    std::optional<Bytes> Log() const { return m_log; }

private:
    struct Stop {};  // the data end here

    uint64_t Number(int width);
    Bytes Take(uint32_t size);
    void Packet();
    uint32_t Rebuild();
    void Index();
    void Metadata();
    void VideoTrack();
    void AudioTrack();
    void Sample(Track& track, uint32_t size, uint64_t presentation, uint64_t decoding, bool sync);
    ParameterSet Set();
    [[noreturn]] void Damaged();

    Journal& m_journal;
    std::optional<Image> m_media;
    std::optional<Bytes> m_log;
    size_t m_at = 0;
    std::unique_ptr<FileTarget> m_file;
    std::unique_ptr<Tree> m_tree;
    bool m_quickTime = false, m_large = false;
    uint64_t m_mdat = 0, m_next = 0, m_mediaBytes = 0, m_end = 0;
    bool m_videoSeen = false, m_audioSeen = false;
};

}  // namespace model

#endif
