// How lumeracentral.exe shows a report: a table of the apps (or, for the boot-impact form,
// of the processes) and the totals, for a person to read.
#pragma once

#include <string>

namespace central {

// The table for one report text; a text that is not a report JSON object gives one line
// that says so.
std::string ReportTable(const std::string& text, unsigned long number);

}  // namespace central
