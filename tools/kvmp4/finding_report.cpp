#include "finding_report.h"

#include <fmt/format.h>

std::string FindingLine(const Finding& finding)
{
    std::string line =
        fmt::format("{:<7}  {}  {}  at {}: {}", SeverityName(finding.severity), finding.code,
                    finding.path.empty() ? "(file)" : finding.path, finding.offset, finding.found);
    if (!finding.expected.empty())
        line += fmt::format("; should be {}", finding.expected);
    if (finding.more > 0)
        line += fmt::format(" (and {} more of this kind here)", finding.more);
    return line;
}

nlohmann::ordered_json FindingJson(const Finding& finding)
{
    nlohmann::ordered_json json = {{"severity", SeverityName(finding.severity)},
                                   {"code", finding.code},
                                   {"path", finding.path},
                                   {"offset", finding.offset},
                                   {"found", finding.found}};
    if (!finding.expected.empty())
        json["expected"] = finding.expected;
    if (finding.more > 0)
        json["more"] = finding.more;
    return json;
}

nlohmann::ordered_json FindingsJson(const Findings& findings, bool notes)
{
    auto list = nlohmann::ordered_json::array();
    for (const Finding& finding : findings.All())
        if (notes || finding.severity != Severity::note)
            list.push_back(FindingJson(finding));
    return list;
}
