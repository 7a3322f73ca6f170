// Findings as text and as JSON.
#pragma once

#include "finding.h"

#include <nlohmann/json.hpp>

#include <string>

std::string FindingLine(const Finding& finding);
nlohmann::ordered_json FindingJson(const Finding& finding);
nlohmann::ordered_json FindingsJson(const Findings& findings, bool notes);
