#include "support/FakeTool.h"

#include <QFile>

#include <stdexcept>

namespace tessel::test {

FakeTool::FakeTool() {
    if (!dir_.isValid()) {
        throw std::runtime_error("FakeTool: cannot create a directory");
    }
    answer(nlohmann::json::array());
}

QString FakeTool::install(const QString& name) const {
    const QString target = path(name);
    QFile::remove(target);
    if (!QFile::link(QStringLiteral(TESSEL_FAKETOOL_PATH), target)) {
        throw std::runtime_error("FakeTool: cannot link " + target.toStdString());
    }
    return target;
}

void FakeTool::answer(const nlohmann::json& runs) const {
    QFile file(path(QStringLiteral("scenario.json")));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        throw std::runtime_error("FakeTool: cannot write the scenario");
    }
    file.write(QByteArray::fromStdString(nlohmann::json{{"runs", runs}}.dump()));
}

QProcessEnvironment FakeTool::environment(QProcessEnvironment base) const {
    base.insert(QStringLiteral("VELMORA_FAKETOOL_SCENARIO"), path(QStringLiteral("scenario.json")));
    base.insert(QStringLiteral("VELMORA_FAKETOOL_LOG"), path(QStringLiteral("runs.jsonl")));
    return base;
}

void FakeTool::exportToProcess() const {
    qputenv("VELMORA_FAKETOOL_SCENARIO", path(QStringLiteral("scenario.json")).toUtf8());
    qputenv("VELMORA_FAKETOOL_LOG", path(QStringLiteral("runs.jsonl")).toUtf8());
}

std::vector<nlohmann::json> FakeTool::runs() const {
    std::vector<nlohmann::json> runs;
    QFile file(path(QStringLiteral("runs.jsonl")));
    if (!file.open(QIODevice::ReadOnly)) {
        return runs;
    }
    while (!file.atEnd()) {
        const QByteArray line = file.readLine().trimmed();
        if (!line.isEmpty()) {
            runs.push_back(nlohmann::json::parse(line.toStdString()));
        }
    }
    return runs;
}

} // namespace tessel::test
