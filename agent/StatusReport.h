// What `status` tells about the stores and the plug-in: toggles, ready flags, how much every collection
// holds, what tables refused.
#pragma once

#include <nlohmann/json_fwd.hpp>

namespace Agent {

class Host;

/// The toggles that were asked for, with their origin.
nlohmann::json togglesReport();
/// The plug-in's ready flags.
nlohmann::json readyReport(const Host& host);
/// Members of every collection: by path, those of one shape summed up under the shape.
nlohmann::json sizesReport(const Host& host);
/// Rows that full tables refused and reads that found damage, over all tables.
nlohmann::json tablesReport(const Host& host);

} // namespace Agent
