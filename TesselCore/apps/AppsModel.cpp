#include "apps/AppsModel.h"

#include "apps/ZipAppInstaller.h"
#include "errors/Failures.h"

#include <QFileInfo>
#include <QPointer>

namespace tessel {

AppsModel::AppsModel(Options options, QObject* parent)
    : QObject(parent), options_(std::move(options)) {}

const VelmoraApp* AppsModel::app(const QString& id) const {
    for (const VelmoraApp& app : options_.apps) {
        if (app.id == id) {
            return &app;
        }
    }
    return nullptr;
}

AppLauncher::State AppsModel::state(const QString& id) const {
    if (const auto known = states_.constFind(id); known != states_.constEnd()) {
        return *known;
    }
    const VelmoraApp* row = app(id);
    return row ? options_.launcher.state(*row) : AppLauncher::State::notInstalled(std::nullopt);
}

std::optional<QString> AppsModel::message(const QString& id) const {
    if (const auto line = messages_.constFind(id); line != messages_.constEnd()) {
        return *line;
    }
    return std::nullopt;
}

void AppsModel::refreshStates() {
    using Kind = AppLauncher::State::Kind;
    QHash<QString, AppLauncher::State> states;
    for (const VelmoraApp& app : options_.apps) {
        AppLauncher::State state = options_.launcher.state(app);
        const auto previous = states_.constFind(app.id);
        if (state.kind == Kind::notInstalled && previous != states_.constEnd() &&
            previous->kind == Kind::installed && previous->url &&
            QFileInfo::exists(previous->url->toLocalFile())) {
            state = *previous;
        }
        states.insert(app.id, state);
    }
    states_ = std::move(states);
    emit changed();
}

Task<void> AppsModel::activate(QString id) {
    const VelmoraApp* row = app(id);
    if (!row || installing_.contains(id)) {
        co_return;
    }
    const VelmoraApp app = *row;
    const AppLauncher::State now = options_.launcher.state(app);
    const bool downloads = now.kind == AppLauncher::State::Kind::notInstalled && now.url &&
                           ZipAppInstaller::isArchive(*now.url);
    if (!downloads && options_.dismiss) {
        options_.dismiss();
    }
    if (options_.override && options_.override(app)) {
        co_return;
    }
    messages_.remove(id);
    installing_.insert(id);
    emit changed();

    QPointer<AppsModel> self(this);
    std::optional<ZipAppInstaller::Installation> installation;
    std::optional<QString> failure;
    try {
        installation = co_await options_.launcher.launch(app, options_.org);
    } catch (const Failure& error) {
        failure = error.description();
    } catch (const Cancelled&) {
        // Nobody cancels a launch; should one end so, the row is only released.
    } catch (const std::exception& error) {
        failure = QString::fromUtf8(error.what());
    }
    if (!self) {
        co_return;
    }
    if (failure) {
        messages_.insert(id, *failure);
    } else {
        messages_.remove(id);
    }
    if (installation) {
        states_.insert(
            id, AppLauncher::State::installed(QUrl::fromLocalFile(installation->application)));
    }
    installing_.remove(id);
    refreshStates();
}

} // namespace tessel
