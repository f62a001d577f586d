#include "Scenario.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace faketool {

using nlohmann::json;

namespace {

std::string fromHex(const std::string& hex) {
    if (hex.size() % 2 != 0) {
        throw std::runtime_error("hex text of odd length: " + hex);
    }
    std::string bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

Step stepFrom(const json& entry) {
    Step step;
    if (entry.contains("sleep")) {
        step.kind = Step::Kind::sleep;
        step.seconds = entry.at("sleep").get<double>();
        return step;
    }
    const std::pair<const char*, int> texts[] = {{"stdout", 1}, {"stderr", 2}};
    for (const auto& [key, fd] : texts) {
        if (entry.contains(key)) {
            step.fd = fd;
            step.bytes = entry.at(key).get<std::string>();
        } else if (entry.contains(std::string(key) + "_hex")) {
            step.fd = fd;
            step.bytes = fromHex(entry.at(std::string(key) + "_hex").get<std::string>());
        } else {
            continue;
        }
        step.repeat = entry.value("repeat", 1L);
        return step;
    }
    throw std::runtime_error("a step needs stdout, stderr, stdout_hex, stderr_hex or sleep: " +
                             entry.dump());
}

bool matches(const json& run, const std::string& tool, const std::vector<std::string>& arguments) {
    if (run.contains("tool") && run.at("tool").get<std::string>() != tool) {
        return false;
    }
    if (run.contains("args") && run.at("args").get<std::vector<std::string>>() != arguments) {
        return false;
    }
    if (run.contains("args_prefix")) {
        const auto prefix = run.at("args_prefix").get<std::vector<std::string>>();
        if (prefix.size() > arguments.size() ||
            !std::equal(prefix.begin(), prefix.end(), arguments.begin())) {
            return false;
        }
    }
    return true;
}

} // namespace

Scenario Scenario::load(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error("cannot read the scenario " + path);
    }
    std::stringstream text;
    text << file.rdbuf();
    const json document = json::parse(text.str());
    Scenario scenario;
    scenario.logPath = document.value("log", std::string());
    if (document.contains("runs")) {
        scenario.runs = document.at("runs");
    }
    return scenario;
}

std::optional<Answer> Scenario::answer(const std::string& tool,
                                       const std::vector<std::string>& arguments) const {
    for (const json& run : runs) {
        if (!matches(run, tool, arguments)) {
            continue;
        }
        Answer answer;
        for (const json& entry : run.value("steps", json::array())) {
            answer.steps.push_back(stepFrom(entry));
        }
        answer.exitStatus = run.value("exit", 0);
        if (run.contains("signal")) {
            answer.signal = run.at("signal").get<int>();
        }
        return answer;
    }
    return std::nullopt;
}

} // namespace faketool
