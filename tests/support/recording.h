// A recording through the public header alone, in a folder of its own that goes with it; its log
// lines are collected.
#pragma once

#include "support/boxes.h"
#include "support/external_sink.h"
#include "support/folder.h"

#include <kv_mp4.h>

#include <filesystem>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace kvtest {

// Replaces spdlog's default logger by one that keeps "level message" lines.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    const std::vector<std::string>& Lines() const;
    std::size_t Count(const std::string& line) const;
    bool Has(const std::string& line) const { return Count(line) != 0; }
    // Where each line comes from, "file function"; the line's number is not a fact to test.
    const std::vector<std::string>& Sources() const;

private:
    struct State;
    std::shared_ptr<State> m_state;
    std::shared_ptr<void> m_before;
};

// Collects what is printed on standard output while it lives.
class StdoutCapture {
public:
    StdoutCapture();
    ~StdoutCapture();
    StdoutCapture(const StdoutCapture&) = delete;
    StdoutCapture& operator=(const StdoutCapture&) = delete;
    // The text so far; collects no more.
    std::string Take();

private:
    bool m_running = true;
};

// Parameter sets of real streams, 160x120: High profile H.264 and Main profile HEVC.
const Bytes& Sps();
const Bytes& Pps();
const Bytes& HevcVps();
const Bytes& HevcSps();
const Bytes& HevcPps();
// An HEVC record with all three, without a timescale.
mp4_video_track_info HevcRecord();

// An Annex B frame of one unit: start code, header byte, then `size` - 1 filler bytes.
Bytes Unit(std::uint8_t header, std::size_t size = 10);
Bytes operator+(const Bytes& left, const Bytes& right);

class Recording {
public:
    // The kind of the file is that of its name.
    explicit Recording(const std::string& name = "clip.mp4", std::uint8_t flags = 0);
    // Into the caller's own output; the sink must outlive the recording.
    explicit Recording(ExternalSink& sink, const std::string& name = "clip.mp4",
                       std::uint8_t flags = 0);
    ~Recording();
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    mp4_handle Handle() const { return m_handle; }
    std::filesystem::path Path() const { return m_folder / m_name; }
    std::filesystem::path InfoPath() const { return m_folder / (m_name + ".info"); }
    LogCapture& Log() { return m_log; }

    std::uint32_t SetH264(std::uint32_t timescale = 1000, std::uint64_t sampleDuration = 0);
    std::uint32_t SetHevc(std::uint32_t timescale = 1000);
    std::uint32_t SetProRes(std::uint32_t format);
    std::uint32_t SetAac(std::uint32_t timescale = 1000, std::uint64_t sampleDuration = 0);
    std::uint32_t SetAdts(std::uint32_t timescale = 1000);
    std::uint32_t Video(const Bytes& frame, std::uint64_t time);
    std::uint32_t Audio(const Bytes& frame, std::uint64_t time);
    // Frames of H.264, IDR pictures of one 10-byte unit.
    void FramesAt(std::initializer_list<std::uint64_t> times);

    std::uint32_t CloseStatus();
    BoxFile Close();  // expects status 0

private:
    Folder m_folder;
    std::string m_name;
    ExternalSink* m_sink = nullptr;  // not owned; null for a file
    LogCapture m_log;
    mp4_handle m_handle = nullptr;
};

}  // namespace kvtest
