// One recording as the model sees it, from the create call to the close.
#ifndef TESTS_MODEL_MUXER_H
#define TESTS_MODEL_MUXER_H

#include "model/sequence.h"
#include "model/target.h"
#include "model/tree.h"

#include <memory>
#include <optional>
#include <string>

namespace model {

// What the model must know of the folder of the run.
struct Place {
    std::string path;   // of the media file, in UTF-8
    std::string given;  // as multibyte text, which may go on where it is not valid
    size_t length = 0;  // in characters
    int logError = 0;   // and of handing the info file's bytes on
    bool CanOpenFiles() const { return openError == 0 && infoOpenError == 0 && logError == 0; }
    bool CanHoldFiles() const { return CanOpenFiles() && length <= 1018; }
    int openError = 0;      // errno of opening it for writing
    int infoOpenError = 0;  // and of path + ".info"
};

class Muxer {
public:
    explicit Muxer(Journal& journal) : m_journal(journal) {}

    uint32_t Create(const Opening& opening, const Place& place);
    uint32_t Close();

    uint32_t SetVideo(const VideoRecord* record);
    uint32_t SetAudio(const AudioRecord* record);
    uint32_t SetCaption(const uint32_t* codec, uint32_t timescale);
    uint32_t SetTimeCode(const TimeCodeRecord* record);
    uint32_t SetMetadata(const Step& step);
    uint32_t WriteVideo(const Bytes* data, uint64_t time);
    uint32_t WriteAudio(const Bytes* data, uint64_t time);
    uint32_t WriteCaption(const Bytes* data, uint32_t size, uint64_t time);
    uint32_t WriteTimeCode(uint32_t value);
    uint64_t DurationMs();
    uint32_t MoovSize() const { return m_tree ? m_tree->Size() : 0; }
    double VideoBitrate() { return m_tree ? Tree::Bitrate(m_tree->m_video) : -1.0; }
    double AudioBitrate() { return m_tree ? Tree::Bitrate(m_tree->m_audio) : -1.0; }
    uint32_t FlushInterval(uint32_t interval);

    std::array<uint32_t, 4> m_safe = {1, 0xA00000, 0x6400000, 0x40000000};

    // The log, whole as the library's writer has it, and how much must be on the disk by now.
    Bytes m_log;
    size_t m_logOnDisk = 0;
    bool m_logMade = false;  // the file was created
    bool m_logLeft = false;  // and stands on the disk
    const FileTarget* File() const { return m_file.get(); }
    // What a checkpoint of this call has left, and where the call's own data begin.
    std::optional<std::pair<Image, uint64_t>> m_checkpoint;
    std::optional<Image> m_media;  // what lies at the path, or in the sink, after the close

private:
    std::optional<uint32_t> NotReady();  // the two tests ahead of most calls
    uint32_t MakeFile(const Opening& opening, const Place& place);
    void MakeBoxes();
    void Finish();
    void CheckSafe(uint32_t size);
    std::optional<uint64_t> NextPosition(uint64_t position);
    void PutMdatSize(uint64_t end);
    void AddSample(Track& track, uint32_t size, uint64_t time, bool sync);
    bool FindParameterSets(const Bytes& frame, const std::vector<Unit>& units);
    uint32_t PackCaption(const Bytes* data, uint32_t size);
    uint32_t LogVideoTrack(const VideoRecord& record);
    uint32_t LogAudioTrack(const AudioRecord& record);
    uint32_t Log(const Bytes& packet);
    void FlushLog();

    Journal& m_journal;
    std::unique_ptr<FileTarget> m_file;
    std::unique_ptr<StagingTarget> m_staging;
    std::unique_ptr<Tree> m_tree;
    bool m_safeMode = false, m_fastHeader = false, m_large = false, m_quickTime = false;
    bool m_logOpen = false;
    int m_logError = 0;
    bool m_external = false;
    std::optional<uint64_t> m_nextMoov;
    uint64_t m_mdat = 0;
    uint64_t m_data = 0;
    uint32_t m_logFrames = 0, m_logFlushed = 0, m_flushInterval = 900;
    enum class Parser { None, H264, Hevc } m_parser = Parser::None;
    VideoRecord m_videoInfo;
    bool m_videoReady = true;
    AudioRecord m_audioInfo;
    bool m_audioReady = false;
    uint32_t m_captionCodec = 0;
};

}  // namespace model

#endif
