// What the model says of a sequence.
#include "model/repairer.h"
#include "model/run.h"

#include <bit>
#include <cerrno>
#include <cmath>

namespace model {

namespace {

constexpr const char* kUnit = "src/mp4";

class Caller {
public:
    Caller(const Sequence& sequence, const Folder& folder, Observed& seen)
        : m_sequence(sequence), m_place(folder.Find(sequence.opening.path)), m_journal{&seen, 0},
          m_seen(seen)
    {
    }

    void Run(Planted& planted);

private:
    enum class Life { None, Open, Ended };

    uint32_t Open();
    void Do(const Step& step, Outcome& outcome);
    uint64_t Dispatch(const Step& step, Outcome& outcome);
    std::optional<uint32_t> BadHandle(const Step& step);
    template <class F>
    void Guard(Outcome& outcome, F call);
    uint32_t SetVideo(const Step& step);
    uint32_t SetAudio(const Step& step);

    const Sequence& m_sequence;
    Place m_place;
    Journal m_journal;
    Observed& m_seen;
    Muxer m_muxer{m_journal};
    Life m_life = Life::None;
};

template <class F>
void Caller::Guard(Outcome& outcome, F call)
{
    const size_t onDisk = m_muxer.m_logOnDisk;
    try {
        outcome.value = call();
    } catch (const IoFailure& failure) {
        outcome.kind = Outcome::Kind::IoException;
        outcome.value = static_cast<uint64_t>(int64_t{failure.code});
    } catch (const OtherFailure&) {
        outcome.kind = Outcome::Kind::OtherException;
    }
    outcome.lines = m_seen.lines.size();
    outcome.infoSize = m_muxer.m_logOnDisk != onDisk ? m_muxer.m_logOnDisk : 0;
    if (m_muxer.m_checkpoint && m_muxer.File() != nullptr) {
        auto& [image, position] = *m_muxer.m_checkpoint;
        m_seen.checkpoints.push_back(
            {m_seen.outcomes.size(), std::move(image), position, m_muxer.File()->Position()});
    }
    m_muxer.m_checkpoint.reset();
    m_seen.outcomes.push_back(outcome);
}

uint32_t Caller::Open()
{
    const Opening& opening = m_sequence.opening;
    const bool front = opening.create == Create::Front || opening.create == Create::FrontWide;
    const bool measured = opening.create == Create::Multibyte || opening.create == Create::Front;
    if (opening.nullPath || (opening.nullOut && !front)) {
        return 4;
    }
    if (measured && m_place.given != m_place.path) {
        m_journal.Error(kUnit, "wcstombs failed");
        return 1;
    }
    if (measured && m_place.length >= 1023) {
        m_journal.Error(kUnit, "file path reach the max path size 1024");
        return 1;
    }
    if (opening.create == Create::AdvMultibyte && m_place.given != m_place.path) {
        m_journal.error = EILSEQ;  // of the conversion, whose result is not looked at
    }
    const uint32_t status = m_muxer.Create(opening, m_place);
    if (status == 0) {
        m_life = Life::Open;
    }
    return status;
}

void Caller::Run(Planted& planted)
{
    const Opening& opening = m_sequence.opening;
    const bool front = opening.create == Create::Front || opening.create == Create::FrontWide;
    Outcome created;
    Guard(created, [&]() -> uint64_t {
        const uint32_t status = Open();
        return front && status != 0 ? 1 : status;
    });
    const bool logged = m_muxer.m_logLeft && m_place.logError == 0;
    for (const Step& step : m_sequence.steps) {
        if (step.call == Call::Close && step.handle == Handle::Good &&
            m_muxer.File() != nullptr) {
            planted.media = m_muxer.File()->m_image;
            if (logged) {
                planted.log = m_muxer.m_log;
            }
        }
        Outcome outcome;
        m_journal.error = step.error;
        Do(step, outcome);
    }
    if (m_life == Life::Open) {  // a sequence cut down to one without a close
        m_muxer.Close();
    }
    m_seen.media = m_muxer.m_media;
    if (logged) {
        m_seen.info = m_muxer.m_log;
    }
    m_seen.infoIsLeft = m_muxer.m_logLeft && m_place.logError == 0;
    if (opening.stale && m_place.CanHoldFiles()) {
        if (!m_seen.media && opening.ioMode != 2) {
            m_seen.media.emplace().Write(0, kStale.data(), kStale.size());
        }
        if (!m_muxer.m_logMade) {
            m_seen.info = kStale;
            m_seen.infoIsLeft = true;
        }
    }
}

void Caller::Do(const Step& step, Outcome& outcome)
{
    Guard(outcome, [&] { return Dispatch(step, outcome); });
}

std::optional<uint32_t> Caller::BadHandle(const Step& step)
{
    if (step.handle == Handle::Null || (step.handle == Handle::Good && m_life == Life::None)) {
        m_journal.Error(kUnit, "null handle");
        return 2;
    }
    if (step.handle == Handle::Unknown || m_life == Life::Ended) {
        m_journal.Error(kUnit, "invalid handle *");
        return 2;
    }
    return std::nullopt;
}

uint32_t Caller::SetVideo(const Step& step)
{
    VideoRecord record{step.timescale, step.time, step.codec, step.width, step.height,
                       step.sps,       step.pps,  step.vps,   step.number};
    if (step.front) {
        if (step.null) {
            return 4;
        }
        if (step.codec != 1 && step.codec != 2) {
            return 10;
        }
        record.codec = step.codec - 1;
        record.duration = 0;
        if (record.codec == 0) {
            record.vps = ParameterSet();
        }
    }
    if (const auto bad = BadHandle(step)) {
        return *bad;
    }
    return m_muxer.SetVideo(step.null ? nullptr : &record);
}

uint32_t Caller::SetAudio(const Step& step)
{
    AudioRecord record{step.timescale, step.time,   step.codec,
                       step.width,     step.height, static_cast<uint8_t>(step.number)};
    if (step.front) {
        if (step.null) {
            return 4;
        }
        if (step.codec != 1 && step.codec != 2) {
            return 10;
        }
        record.duration = 0;
        if (record.codec == 2) {
            record.rate = record.channels = 0;
            record.objectType = 0;
        }
    }
    if (const auto bad = BadHandle(step)) {
        return *bad;
    }
    return m_muxer.SetAudio(step.null ? nullptr : &record);
}

uint64_t Caller::Dispatch(const Step& step, Outcome& outcome)
{
    if (step.call == Call::SetVideo) {
        return SetVideo(step);
    }
    if (step.call == Call::SetAudio) {
        return SetAudio(step);
    }
    if (step.call == Call::SetSubtitle && step.front) {
        if (step.null) {
            return 4;
        }
        if (step.codec != 1 && step.codec != 2) {
            return 10;
        }
    }
    if (const auto bad = BadHandle(step)) {
        return *bad;
    }
    const Bytes* data = step.null ? nullptr : &step.data;
    const auto bitrate = [&](double value) -> uint64_t {
        outcome.result = std::isnan(value) ? 1 : std::bit_cast<uint64_t>(value);
        return 0;
    };
    switch (step.call) {
    case Call::SetSubtitle:
        return m_muxer.SetCaption(step.null ? nullptr : &step.codec, step.timescale);
    case Call::SetTimeCode: {
        const TimeCodeRecord record{step.timescale, step.time, static_cast<uint8_t>(step.number),
                                    step.flags};
        return m_muxer.SetTimeCode(step.null ? nullptr : &record);
    }
    case Call::SetMetadata:
    case Call::SetMetadataEx: return m_muxer.SetMetadata(step);
    case Call::WriteVideo: return m_muxer.WriteVideo(data, step.time);
    case Call::WriteAudio: return m_muxer.WriteAudio(data, step.time);
    case Call::WriteSubtitle:
        return m_muxer.WriteCaption(data, static_cast<uint32_t>(step.data.size()), step.time);
    case Call::WriteTimeCode: return m_muxer.WriteTimeCode(step.number);
    case Call::Duration: return m_muxer.DurationMs();
    case Call::MoovSize: return m_muxer.MoovSize();
    case Call::VideoBitrate: return step.null ? 4 : bitrate(m_muxer.VideoBitrate());
    case Call::AudioBitrate: return step.null ? 4 : bitrate(m_muxer.AudioBitrate());
    case Call::GetSafe:
        if (step.null) {
            return 4;
        }
        for (const uint32_t value : m_muxer.m_safe) {
            outcome.result = outcome.result * 1000003 + value;
        }
        return 0;
    case Call::SetSafe:
        if (step.null) {
            m_journal.Error("src/Mp4Muxer", "params is NULL when set safe param");
            return 4;
        }
        m_muxer.m_safe = step.safe;
        return 0;
    case Call::FlushInterval: return m_muxer.FlushInterval(step.number);
    case Call::Close: m_life = Life::Ended; return m_muxer.Close();
    default: return 0;
    }
}

// What the two files become before the repair.
void Damage(Planted& planted, const Repair& repair)
{
    if (repair.noMedia) {
        planted.media.reset();
    }
    if (planted.media) {
        const uint64_t size = planted.media->Size();
        if (repair.mediaCut != UINT64_MAX) {
            planted.media->Resize(repair.mediaCut % (size + 1));
        }
        if (repair.mediaTail != 0) {
            const Bytes tail(repair.mediaTail, 0xA5);
            planted.media->Write(planted.media->Size(), tail.data(), tail.size());
        }
    }
    if (repair.madeUpLog) {
        planted.log = repair.madeUpLog;
    }
    if (repair.noLog) {
        planted.log.reset();
    }
    if (planted.log) {
        Bytes& log = *planted.log;
        if (repair.logCut != UINT64_MAX) {
            log.resize(repair.logCut % (log.size() + 1));
        }
        for (const auto& [at, bits] : repair.logFlips) {
            if (!log.empty()) {
                log[at % log.size()] = static_cast<uint8_t>(log[at % log.size()] ^ bits);
            }
        }
        log.insert(log.end(), repair.logTail.begin(), repair.logTail.end());
    }
}

}  // namespace

Prediction Predict(const Sequence& sequence, const Folder& folder)
{
    Prediction prediction;
    Caller(sequence, folder, prediction.result.recording).Run(prediction.planted);
    const Place place = folder.Find(sequence.opening.path);
    if (!sequence.repair || !place.CanOpenFiles()) {
        return prediction;
    }
    const Repair& repair = *sequence.repair;
    Planted& planted = prediction.planted;
    if (place.CanHoldFiles()) {
        Damage(planted, repair);
        if (repair.fit != 0 && planted.media) {
            Observed ignored;
            Journal silent{&ignored, repair.error};
            Repairer rehearsal(silent, planted.media, planted.log);
            rehearsal.Run(place, 0);
            if (rehearsal.End() != 0) {
                planted.media->Resize(rehearsal.End() + repair.fit);
            }
        }
    } else {
        planted = Planted();
    }
    Observed& seen = prediction.result.repair.emplace();
    Journal journal{&seen, repair.error};
    seen.media = planted.media;
    seen.info = planted.log;
    for (uint32_t i = 0; i < repair.runs; ++i) {
        journal.error = repair.multibyte && place.given != place.path ? EILSEQ : repair.error;
        Repairer repairer(journal, seen.media, seen.info);
        Outcome outcome;
        outcome.value = repair.nullPath ? 4 : repairer.Run(place, repair.option);
        outcome.lines = seen.lines.size();
        seen.outcomes.push_back(outcome);
        seen.media = repairer.Media();
        seen.info = repairer.Log();
    }
    seen.infoIsLeft = seen.info.has_value();
    return prediction;
}

}  // namespace model
