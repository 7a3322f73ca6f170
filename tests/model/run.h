// Running a sequence: on the model, which predicts, and on the library, which shows.
#ifndef TESTS_MODEL_RUN_H
#define TESTS_MODEL_RUN_H

#include "model/muxer.h"
#include "model/observed.h"
#include "model/sequence.h"

#include <array>
#include <memory>
#include <optional>
#include <string>

namespace model {

// The folder of the runs, with what sequences expect to find there.
class Folder {
public:
    Folder(const std::string& parent, const std::string& name);
    ~Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    Place Find(const std::string& path) const;

private:
    std::string m_root;
};

struct Result {
    Observed recording;
    std::optional<Observed> repair;
};

// What stands in both files before a recording over older ones.
inline const Bytes kStale(100, 0x5A);

// What the repair finds.
struct Planted {
    std::optional<Image> media;
    std::optional<Bytes> log;
};

struct Prediction {
    Result result;
    Planted planted;
};
Prediction Predict(const Sequence& sequence, const Folder& folder);

// The library. One object for the process: it takes the logger and standard output.
class Library {
public:
    Library();
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
    // Two recordings, their calls in turns by chance. Repairs are left out.
    std::array<Result, 2> RunTogether(const std::array<Sequence, 2>& sequences,
                                      const std::array<Prediction, 2>& predictions,
                                      const std::array<const Folder*, 2>& folders);
    Result Run(const Sequence& sequence, const Prediction& prediction, const Folder& folder);

private:
    struct Capture;
    std::unique_ptr<Capture> m_capture;
};

// The first difference as text; empty when there is none.
std::string Compare(const Result& expected, const Result& shown, const Sequence& sequence);

}  // namespace model

#endif
