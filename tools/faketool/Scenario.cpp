#include "Scenario.h"

#include <sys/stat.h>

#include <algorithm>
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

std::string resolved(const std::string& directory, const std::string& path) {
    return path.starts_with("/") || directory.empty() ? path : directory + "/" + path;
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    std::stringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

// ${--name}: the argument after "--name", or the content of a "--name-file".
std::string expand(const std::string& text, const std::vector<std::string>& arguments) {
    std::string result;
    std::size_t at = 0;
    for (;;) {
        const auto open = text.find("${", at);
        const auto close = open == std::string::npos ? open : text.find('}', open);
        if (close == std::string::npos) {
            return result + text.substr(at);
        }
        result += text.substr(at, open - at);
        const std::string name = text.substr(open + 2, close - open - 2);
        const auto given = std::find(arguments.begin(), arguments.end(), name);
        if (given == arguments.end() || given + 1 == arguments.end()) {
            throw std::runtime_error("no argument " + name + " to expand");
        }
        result += name.ends_with("-file") ? contentOf(*(given + 1)) : *(given + 1);
        at = close + 1;
    }
}

Step stepFrom(const json& entry, const std::vector<std::string>& arguments,
              const std::string& directory) {
    Step step;
    if (entry.contains("sleep")) {
        step.kind = Step::Kind::sleep;
        step.seconds = entry.at("sleep").get<double>();
        return step;
    }
    if (entry.contains("write_file")) {
        step.kind = Step::Kind::writeFile;
        step.path = resolved(directory, entry.at("write_file").get<std::string>());
        step.bytes = entry.value("text", std::string());
        if (entry.value("expand", false)) {
            step.bytes = expand(step.bytes, arguments);
        }
        return step;
    }
    if (entry.contains("stdout_file")) {
        step.bytes = contentOf(resolved(directory, entry.at("stdout_file").get<std::string>()));
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
        if (entry.value("expand", false)) {
            step.bytes = expand(step.bytes, arguments);
        }
        step.repeat = entry.value("repeat", 1L);
        return step;
    }
    throw std::runtime_error(
        "a step needs stdout, stderr, stdout_hex, stderr_hex, stdout_file, sleep or write_file: " +
        entry.dump());
}

bool exists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

bool matches(const json& run, const std::string& tool, const std::vector<std::string>& arguments,
             const std::string& directory) {
    if (run.contains("when_file") &&
        !exists(resolved(directory, run.at("when_file").get<std::string>()))) {
        return false;
    }
    if (run.contains("unless_file") &&
        exists(resolved(directory, run.at("unless_file").get<std::string>()))) {
        return false;
    }
    if (run.contains("tool") && run.at("tool").get<std::string>() != tool) {
        return false;
    }
    if (run.contains("args") && run.at("args").get<std::vector<std::string>>() != arguments) {
        return false;
    }
    if (run.contains("args_contains")) {
        for (const auto& wanted : run.at("args_contains").get<std::vector<std::string>>()) {
            if (std::find(arguments.begin(), arguments.end(), wanted) == arguments.end()) {
                return false;
            }
        }
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
    const auto slash = path.rfind('/');
    scenario.directory = slash == std::string::npos ? "." : path.substr(0, slash);
    if (document.contains("runs")) {
        scenario.runs = document.at("runs");
    }
    return scenario;
}

std::optional<Answer> Scenario::answer(const std::string& tool,
                                       const std::vector<std::string>& arguments) const {
    for (const json& run : runs) {
        if (!matches(run, tool, arguments, directory)) {
            continue;
        }
        Answer answer;
        for (const json& entry : run.value("steps", json::array())) {
            answer.steps.push_back(stepFrom(entry, arguments, directory));
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
