#include "finding.h"

#include <algorithm>

namespace {

constexpr std::size_t kKeptOfAKind = 3;  // in one box; a damaged table would bury the rest

}  // namespace

void Findings::Add(Severity severity, const std::string& code, const std::string& path,
                   std::uint64_t offset, const std::string& found, const std::string& expected)
{
    auto& [count, last] = m_kept[code + ' ' + path];
    if (count++ >= kKeptOfAKind) {
        ++m_all[last].more;
        return;
    }
    last = m_all.size();
    m_all.push_back({severity, code, path, offset, found, expected});
}

std::uint64_t Findings::Count(Severity severity) const
{
    std::uint64_t count = 0;
    for (const Finding& finding : m_all)
        if (finding.severity == severity)
            count += 1 + finding.more;
    return count;
}

bool Findings::Has(const std::string& code) const
{
    return std::any_of(m_all.begin(), m_all.end(),
                       [&](const Finding& finding) { return finding.code == code; });
}

const char* SeverityName(Severity severity)
{
    switch (severity) {
    case Severity::note: return "note";
    case Severity::warning: return "warning";
    default: return "error";
    }
}
