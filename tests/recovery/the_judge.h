// One recording for all tests of the judges, with what its output holds right behind the third
// switch.
#pragma once

#include "recovery/judge.h"
#include "support/recording.h"

#include <gtest/gtest.h>

#include <memory>

namespace kvtest {

class TheJudge : public testing::Test {
protected:
    static const Take& Recorded()
    {
        static const std::unique_ptr<Take> take = [] {
            const LogCapture log;
            return Record({});
        }();
        return *take;
    }
    static Cut Behind(const Checkpoint& checkpoint) { return {checkpoint.switchCall, 4}; }

    const Take& take = Recorded();
    const Checkpoint& third = take.checkpoints.at(2);
    Replay replay{take.trace};
    Bytes file = replay.FileAt(Behind(third));
};

}  // namespace kvtest
