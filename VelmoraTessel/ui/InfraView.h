// The menu's block for the local infrastructure of one organisation: conductor,
// tunnel and agent supervisor with their state dots, and the buttons that open,
// restart or set up a conductor.
#pragma once

#include "infra/InfraModel.h"
#include "ui/RebuildLater.h"

#include <QPointer>
#include <QUrl>
#include <QWidget>

#include <functional>

class QVBoxLayout;

namespace tessel::app {

class InfraView : public QWidget {
    Q_OBJECT

public:
    struct Actions {
        std::function<void()> openSetup;
        // Opens a web address in the browser, or a file with its default application.
        std::function<void(const QUrl&)> openURL;
        // Closes the popover around the view, when there is one.
        std::function<void()> closePopover;
    };

    InfraView(InfraModel* model, Actions actions, QWidget* parent = nullptr);

    // The organisation shown: its host (lower case) and its name.
    void setOrg(const QString& host, const QString& name);

private:
    void scheduleRebuild();
    void rebuild();
    void addRows(QVBoxLayout* column, const InfraStatus& status);
    void leaveTo(const QUrl& url);

    QPointer<InfraModel> model_;
    Actions actions_;
    QString host_;
    QString name_;
    QWidget* body_ = nullptr;
    RebuildLater rebuildLater_{this, [this] { rebuild(); }};
};

} // namespace tessel::app
