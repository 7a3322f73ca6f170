#include "model/muxer.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

namespace model {

namespace {

constexpr const char* kUnit = "src/Mp4Muxer";
constexpr size_t kLongestPath = 1024;

}  // namespace

uint32_t Muxer::MakeFile(const Opening& opening, const Place& place)
{
    switch (opening.ioMode) {
    case 0:
        if (place.openError != 0) {
            m_journal.Error("src/BaseIO", fmt::format("open file failed, error:{}",
                                                      std::strerror(place.openError)));
            m_journal.Error(kUnit, "init CFileWriter writer failed");
            return StatusOf(place.openError);
        }
        m_file = std::make_unique<FileTarget>(m_journal, Image(), false, Fault());
        return 0;
    case 1: m_journal.Error(kUnit, "windows platform do not support direct io"); return 10;
    case 2:
        if (!opening.table) {
            m_journal.Error(kUnit, "error: pFunc should not be null when use external io mode");
            return 4;
        }
        if (opening.fault.openAnswer == 0) {
            m_journal.seen->sinkCalls.push_back({SinkCall::Kind::Open, 1, 0});
            m_journal.Error(kUnit, "init external writer failed");
            return 4;
        }
        m_external = true;
        m_file =
            std::make_unique<FileTarget>(m_journal, Image(), true, opening.fault, opening.start);
        return 0;
    default: return 0;
    }
}

uint32_t Muxer::Create(const Opening& opening, const Place& place)
{
    m_journal.Info(kUnit, fmt::format("mp4 flag is {}", opening.flags));
    m_safeMode = (opening.flags & 0x08) != 0;
    if (m_safeMode) {
        m_journal.Info(kUnit, "safe mode open");
    }
    m_fastHeader = (opening.flags & 0x20) != 0;
    m_journal.Info(kUnit,
                   m_fastHeader ? "fast header write enabled" : "fast header write disabled");
    m_large = (opening.flags & 0x02) != 0;
    m_quickTime = place.path.find("mov") != std::string::npos;

    if ((opening.flags & 0x10) != 0) {
        if (place.length + 6 > kLongestPath) {
            Close();
            return 4;
        }
        if (place.infoOpenError != 0) {
            m_journal.Error("src/BaseIO", fmt::format("open file failed, error:{}",
                                                      std::strerror(place.infoOpenError)));
            Close();
            return StatusOf(place.infoOpenError);
        }
        m_logMade = m_logLeft = m_logOpen = true;
        m_logError = place.logError;
        Log(Bin().U8(opening.flags).bytes);
    }

    const uint32_t status = MakeFile(opening, place);
    if (!m_file) {
        Close();
        return status;
    }
    if (m_fastHeader) {
        m_staging = std::make_unique<StagingTarget>(m_journal, m_file.get());
    }
    m_tree = std::make_unique<Tree>(m_journal, m_staging ? static_cast<Target&>(*m_staging)
                                                         : static_cast<Target&>(*m_file));
    if (m_large) {
        m_tree->SetLarge();
    }
    if ((opening.flags & 0x01) != 0) {
        m_tree->SetLongForm();
    }
    m_tree->SetQuickTime(m_quickTime);
    try {
        MakeBoxes();
    } catch (const IoFailure& failure) {
        const uint32_t failed = StatusOf(failure.code);
        Close();
        return failed;
    } catch (const OtherFailure&) {
        Close();
        return 1;
    }
    if (m_logOpen) {
        Log(Bin().U32(m_mdat).bytes);
        if (place.logError != 0) {
            m_journal.error = place.logError;
            m_journal.Print(fmt::format("BaseIO : Error - [line *] Write error {} !\n\n",
                                        std::strerror(place.logError)));
            Close();
            return StatusOf(place.logError);
        }
        FlushLog();
    }
    m_data = m_file->Tell();
    return 0;
}

void Muxer::MakeBoxes()
{
    Bin brands;
    brands.Text(m_quickTime ? "qt  " : "isom").U32(0x200);
    brands.Text(m_quickTime ? "qt  " : "isomiso2mp41");
    Nest(*m_file, Bin().U32(0).Text("ftyp").Raw(brands.bytes).bytes, [] {});
    if (!m_quickTime) {
        m_file->Put(Bin().U32(8).Text("free").bytes);
    }
    m_mdat = m_file->Tell();
    m_file->Put(Bin().U32(m_large ? 1 : 8).Text("mdat").bytes);
    if (m_large) {
        m_file->Put(Bin().U64(1).bytes);
    }
}

void Muxer::PutMdatSize(uint64_t end)
{
    const uint64_t saved = m_file->Tell();
    m_file->Seek(m_mdat);
    m_file->Put(Bin().U32(end - m_mdat).bytes);
    m_file->Seek(saved);
}

void Muxer::Finish()
{
    if (m_safeMode) {
        if (!m_nextMoov) {
            m_nextMoov = m_safe[1];
        }
        m_journal.Info(kUnit, fmt::format("mdat end update to {}", *m_nextMoov));
        if (m_file) {
            PutMdatSize(*m_nextMoov);
        }
        if (m_staging) {
            m_staging->Reset();
        }
        if (m_tree) {
            m_tree->WriteAt(*m_nextMoov);
        }
        m_journal.Info(kUnit, "Muxer - Close - moov write takes * ms");
    } else {
        if (m_file) {
            const uint64_t end = m_file->Tell();
            m_file->Seek(m_mdat + (m_large ? 8 : 0));
            const Bin size = m_large ? Bin().U64(end - m_mdat) : Bin().U32(end - m_mdat);
            m_file->Put(size.bytes);
            m_file->Seek(end);
        }
        m_journal.Info(kUnit, "Muxer - Close - mdat finish takes * ms");
        if (m_staging) {
            m_staging->Reset();
        }
        if (m_tree) {
            m_tree->Write(m_staging.get());
        }
        m_journal.Info(kUnit, "Muxer - Close - moov write takes * ms");
    }
    m_logLeft = false;
    m_journal.Info(kUnit, "Muxer - Close - remove info file takes * ms");
}

uint32_t Muxer::Close()
{
    uint32_t result = 0;
    if (m_file && m_file->m_state != State::Open) {
        result = StatusOf(m_file->m_error);
    }
    if (m_logOpen && m_logError != 0) {
        m_journal.error = m_logError;  // closing the stream hands its bytes on
    }
    m_logOpen = false;
    try {
        Finish();
    } catch (const IoFailure& failure) {
        result = StatusOf(failure.code);
    } catch (const OtherFailure&) {
        result = 1;
    }
    m_nextMoov.reset();
    if (m_file) {
        m_file->Tell();
        m_file->Close();
        m_media = m_file->m_image;
    }
    m_journal.Info(kUnit, "Muxer - Close - uninit takes * ms");
    m_staging.reset();
    m_file.reset();
    m_tree.reset();
    return result;
}

std::optional<uint32_t> Muxer::NotReady()
{
    if (!m_file) {
        m_journal.Error(kUnit, "file not open!");
        return 19;
    }
    if (m_file->m_state != State::Open) {
        return StatusOf(m_file->m_error);
    }
    return std::nullopt;
}

uint64_t Muxer::DurationMs()
{
    if (!m_file || m_file->m_state != State::Open) {
        m_journal.Error(kUnit, "no open file, can't get duration");
        return 0;
    }
    return m_tree->DurationMs();
}

std::optional<uint64_t> Muxer::NextPosition(uint64_t position)
{
    const auto& [strategy, least, most, threshold] = m_safe;
    const uint64_t range = most - least;  // modulo 2 to the 32nd
    const auto share = [&] {
        return static_cast<int64_t>(range * position) / static_cast<int64_t>(threshold);
    };
    switch (strategy) {
    case 0: return position + least;
    case 1:
        return position > threshold ? position + most
                                    : position + least + static_cast<uint64_t>(share());
    case 2:
        // The quotient of position and threshold is 0 in the first row.
        return position < threshold ? position + (least ^ 3u) : position + most;
    default:
        m_journal.Error(kUnit, fmt::format("unsupported strategy {}", strategy));
        return std::nullopt;
    }
}

void Muxer::CheckSafe(uint32_t size)
{
    if (!m_safeMode) {
        return;
    }
    const uint64_t position = m_file->Tell();
    const int32_t twice = static_cast<int32_t>(2 * size);
    if (position + static_cast<uint64_t>(int64_t{twice}) <= m_nextMoov.value_or(m_safe[1])) {
        return;
    }
    const auto next = NextPosition(position);
    if (!next) {
        return;
    }
    m_nextMoov = next;
    m_journal.Info(kUnit, fmt::format("update moov header to {}", *next));
    m_tree->WriteAt(*next);
    m_file->Flush();
    PutMdatSize(*next);
    m_file->Flush();
    if (!m_external) {
        m_checkpoint.emplace(m_file->m_image, position);
    }
}

}  // namespace model
