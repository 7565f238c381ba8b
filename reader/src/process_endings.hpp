// How the processes of a collection ended, from its manifest.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vorx::report {

using ProcessEndings = std::map<std::uint32_t, std::string>;

// "exited with status 0", "killed by signal 6 (Aborted)", or empty when neither is known.
std::string describe_ending(std::optional<long> exit_code, std::optional<long> exit_signal);
// The endings of every results directory among the inputs; trace files given alone have none.
ProcessEndings read_process_endings(const std::vector<std::string> &inputs);

// Trace records each process dropped while recording, as its collector told the run-tool at its end.
using LostRecords = std::map<std::uint32_t, std::uint64_t>;
LostRecords read_lost_records(const std::vector<std::string> &inputs);

} // namespace vorx::report
