// What a reader finds wrong with a file: how grave, what kind, in which box, where, what is there
// and what should be.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

enum class Severity { note, warning, error };

struct Finding {
    Severity severity;
    std::string code;      // of the table in docs/verify.md
    std::string path;      // of the box, "moov/trak[2]/mdia"; empty for the file
    std::uint64_t offset;  // in the file
    std::string found;
    std::string expected;    // may be empty
    std::uint64_t more = 0;  // further ones of this kind in this box, not kept
};

class Findings {
public:
    void Add(Severity severity, const std::string& code, const std::string& path,
             std::uint64_t offset, const std::string& found, const std::string& expected = "");
    void Error(const std::string& code, const std::string& path, std::uint64_t offset,
               const std::string& found, const std::string& expected = "")
    {
        Add(Severity::error, code, path, offset, found, expected);
    }
    void Warning(const std::string& code, const std::string& path, std::uint64_t offset,
                 const std::string& found, const std::string& expected = "")
    {
        Add(Severity::warning, code, path, offset, found, expected);
    }
    // Something unusual that is meant to be so.
    void Note(const std::string& code, const std::string& path, std::uint64_t offset,
              const std::string& found, const std::string& expected = "")
    {
        Add(Severity::note, code, path, offset, found, expected);
    }

    const std::vector<Finding>& All() const { return m_all; }
    // How many there are of a severity, those not kept included.
    std::uint64_t Count(Severity severity) const;
    // Whether there is one of these kinds.
    bool Has(const std::string& code) const;

private:
    std::vector<Finding> m_all;
    std::map<std::string, std::pair<std::size_t, std::size_t>> m_kept;  // kind: count, last index
};

const char* SeverityName(Severity severity);
