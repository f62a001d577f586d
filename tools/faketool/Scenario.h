// What velmora-faketool answers, read from a scenario file (JSON):
//
//   {
//     "log": "/tmp/runs.jsonl",               where each run is logged (optional)
//     "runs": [                                the first entry that matches answers
//       {
//         "tool": "vantor-accounts",           the name it was started under (optional)
//         "args": ["--tsv", "status"],         exactly these arguments (optional)
//         "args_prefix": ["use"],              or arguments that begin so (optional)
//         "args_contains": ["--dry-run"],      and that hold these (optional)
//         "when_file": "after.json",           only while this file exists (optional)
//         "unless_file": "after.json",         only while it does not (optional)
//         "steps": [                           done in order
//           {"stdout": "text"}, {"stderr": "text", "repeat": 1024},
//           {"stdout_hex": "ff0a"}, {"sleep": 0.25},
//           {"stdout": "token ${--token-file}", "expand": true},
//           {"write_file": "after.json", "text": "...", "expand": true},
//           {"stdout_file": "after.json"}
//         ],
//         "exit": 0,                           the exit status (default 0)
//         "signal": 15                         or end by this signal
//       }
//     ]
//   }
//
// With "expand", ${--name} in a text becomes the argument that follows "--name"
// on the command line or, for a "--name-file" option, that file's content: how
// the stand-in echoes back what it was given. "write_file" writes a file, so a
// later run can answer differently ("when_file") or print it ("stdout_file").
// Relative paths are relative to the scenario file's directory.
#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

namespace faketool {

struct Step {
    enum class Kind { write, sleep, writeFile };
    Kind kind = Kind::write;
    int fd = 1;         // write: 1 or 2
    std::string bytes;  // write, writeFile: what, once
    long repeat = 1;    // write: how many times
    double seconds = 0; // sleep
    std::string path;   // writeFile
};

struct Answer {
    std::vector<Step> steps;
    int exitStatus = 0;
    std::optional<int> signal;
};

struct Scenario {
    std::string logPath;
    std::string directory; // of the scenario file, for relative paths
    nlohmann::json runs = nlohmann::json::array();

    // Throws std::runtime_error with a readable reason for a malformed file.
    static Scenario load(const std::string& path);
    // The answer for one run, or none when no entry matches.
    std::optional<Answer> answer(const std::string& tool,
                                 const std::vector<std::string>& arguments) const;
};

} // namespace faketool
