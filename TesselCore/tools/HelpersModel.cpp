#include "tools/HelpersModel.h"

#include "errors/Failures.h"
#include "tools/HelperInstaller.h"

#include <QPointer>

namespace tessel {

HelpersModel::HelpersModel(Dependencies dependencies, QObject* parent)
    : QObject(parent), dependencies_(std::move(dependencies)) {}

Task<void> HelpersModel::installIfNeeded() {
    if (busy_ || !dependencies_.carried) {
        co_return;
    }
    busy_ = true;
    ready_ = false;
    error_.reset();
    pythonMissing_ = false;
    emit changed();

    QPointer<HelpersModel> self(this);
    const ToolRunner python = dependencies_.python;
    std::optional<QString> failure;
    try {
        co_await dependencies_.install();
    } catch (const Cancelled&) {
        throw;
    } catch (const std::exception& error) {
        failure = describeFailure(error);
    }
    if (!self) {
        co_return;
    }
    if (failure) {
        error_ = failure;
        busy_ = false;
        emit changed();
        co_return;
    }
    const bool available = co_await HelperPython::isAvailable(python);
    if (!self) {
        co_return;
    }
    ready_ = available;
    pythonMissing_ = !available;
    busy_ = false;
    emit changed();
}

Task<void> HelpersModel::installPython() {
    if (busy_) {
        co_return;
    }
    busy_ = true;
    emit changed();

    QPointer<HelpersModel> self(this);
    std::optional<QString> failure;
    try {
        co_await HelperPython::installPackage(dependencies_.packageTool);
    } catch (const Cancelled&) {
        throw;
    } catch (const std::exception& error) {
        failure = describeFailure(error);
    }
    if (!self) {
        co_return;
    }
    error_ = failure;
    busy_ = false;
    emit changed();
}

} // namespace tessel
