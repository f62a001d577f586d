// The Apps section: one row per sibling application with its symbol, name and
// subtitle, and Open, Get, or a progress bar while it downloads and installs;
// a failed launch is written under its row. A click anywhere on a row
// launches it.
#pragma once

#include "apps/AppsModel.h"
#include "ui/RebuildLater.h"

#include <QPointer>
#include <QWidget>

namespace tessel::app {

class AppsView : public QWidget {
    Q_OBJECT

public:
    explicit AppsView(QWidget* parent = nullptr);

    // The model shown; none shows nothing. Not owned.
    void setModel(AppsModel* model);

private:
    void scheduleRebuild();
    void rebuild();
    QWidget* row(const VelmoraApp& app);

    QPointer<AppsModel> model_;
    QWidget* body_ = nullptr;
    RebuildLater rebuildLater_{this, [this] { rebuild(); }};
};

} // namespace tessel::app
