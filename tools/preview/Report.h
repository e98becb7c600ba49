#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include <sandbox/State.h>

#include "Observations.h"

namespace kva::preview {

/// Everything about the creative, as JSON. False if the file cannot be written.
bool writeReport(const std::filesystem::path& file, const std::string& creative,
                 const Observations& observations,
                 const std::optional<sandbox::ReportRecord>& reported);

/// One test case for each rule, in JUnit's XML. False if the file cannot be written.
bool writeJUnit(const std::filesystem::path& file, const std::string& creative,
                const Observations& observations);

/// The verdict and each broken rule, for a person.
std::string verdict(const std::string& creative, const Observations& observations);

}  // namespace kva::preview
