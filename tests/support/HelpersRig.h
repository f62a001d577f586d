// The helpers' model with a scripted installation and scripted tools: Python's
// check answers `python`, the package tool `packageTool` or fails to start.
#pragma once

#include "errors/Failures.h"
#include "tools/HelpersModel.h"

namespace tessel::test {

struct HelpersRig {
    int installs = 0;
    std::optional<QString> installFailure;
    ToolOutput python{QString(), QString(), 0};
    std::optional<ToolOutput> packageTool;
    HelpersModel model{{
        [this]() -> Task<void> { return install(this); },
        [this](QStringList, CancellationToken) -> Task<ToolOutput> { return answer(python); },
        [this](QStringList, CancellationToken) -> Task<ToolOutput> {
            if (!packageTool) {
                return fail();
            }
            return answer(*packageTool);
        },
    }};

    static Task<void> install(HelpersRig* rig) {
        ++rig->installs;
        co_await sleepFor(0.01);
        if (rig->installFailure) {
            throw TesselError(*rig->installFailure);
        }
    }
    static Task<ToolOutput> answer(ToolOutput output) { co_return output; }
    static Task<ToolOutput> fail() {
        throw ToolLaunchError(QStringLiteral("/usr/bin/pkcon"),
                              QStringLiteral("No such file or directory"));
        co_return {};
    }
    QString state() const {
        return QStringLiteral("ready=%1 busy=%2 python=%3 error=%4")
            .arg(model.ready())
            .arg(model.busy())
            .arg(model.pythonMissing())
            .arg(model.error().value_or(QStringLiteral("none")));
    }
};

} // namespace tessel::test
