// velmora-faketool set up for a test: a private directory with the stand-in
// under the names a test needs, its scenario and its run log.
#pragma once

#include <QProcessEnvironment>
#include <QString>
#include <QTemporaryDir>

#include <nlohmann/json.hpp>

#include <vector>

namespace tessel::test {

class FakeTool {
public:
    FakeTool();

    // The stand-in under `name` in the fixture's directory; gives its path.
    QString install(const QString& name) const;
    // What the stand-in answers from now on: the scenario's "runs" (Scenario.h).
    void answer(const nlohmann::json& runs) const;
    // `base` (this process's environment) with the scenario and the log added.
    QProcessEnvironment
    environment(QProcessEnvironment base = QProcessEnvironment::systemEnvironment()) const;
    // The same two added to this process's own, for runners that read it when made.
    void exportToProcess() const;
    // The runs logged so far, oldest first.
    std::vector<nlohmann::json> runs() const;

    QString path(const QString& name) const { return dir_.filePath(name); }

private:
    QTemporaryDir dir_;
};

} // namespace tessel::test
