#include "verify.h"

#include "failure.h"
#include "finding_report.h"

#include <fmt/format.h>

#include <cstdio>

using Json = nlohmann::ordered_json;

bool Judge(ByteSource& source, bool tablesOnly, Findings& findings)
{
    const Box tree = ReadTree(source, findings);
    if (!LooksLikeBoxFile(tree))
        return false;
    VerifyBoxes(source, tree, findings);
    Movie movie = ReadMovie(source, tree, findings);
    ReadFragments(source, tree, movie, findings);
    VerifyTracks(source, tree, movie, findings);
    VerifyDescriptions(source, movie, findings);
    if (!tablesOnly)
        VerifySamples(source, movie, findings);
    return true;
}

int Verify(const VerifyOptions& options)
{
    FileSource source;
    if (const std::string trouble = source.Open(options.file); !trouble.empty())
        throw Failure(kExitInput, fmt::format("cannot read {}: {}", options.file, trouble));
    Findings findings;
    if (!Judge(source, options.tablesOnly, findings))
        throw Failure(kExitNotAMovie, fmt::format("{} is no MP4 or MOV file", options.file));
    const std::uint64_t errors = findings.Count(Severity::error);
    const std::uint64_t warnings = findings.Count(Severity::warning);
    const char* const verdict = errors > 0 ? "damaged" : warnings > 0 ? "doubtful" : "sound";
    if (options.json) {
        const Json json = {{"file", ReadableText(options.file)},
                                             {"size", source.Size()},
                                             {"verdict", verdict},
                                             {"errors", errors},
                                             {"warnings", warnings},
                                             {"findings", FindingsJson(findings, true)}};
        fmt::print("{}\n", json.dump(2, ' ', false, Json::error_handler_t::replace));
    } else {
        for (const Finding& finding : findings.All())
            if (options.verbose || finding.severity != Severity::note)
                fmt::print("{}\n", FindingLine(finding));
        if (errors + warnings == 0)
            fmt::print("{}: sound\n", options.file);
        else
            fmt::print("{}: {}, {} error{}, {} warning{}\n", options.file, verdict, errors,
                       errors == 1 ? "" : "s", warnings, warnings == 1 ? "" : "s");
    }
    return errors > 0 ? kExitErrors : warnings > 0 ? kExitWarnings : kExitOk;
}
