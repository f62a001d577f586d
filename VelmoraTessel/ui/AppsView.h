// The Apps section: one row per sibling application with its symbol, name and
// subtitle, and Open, Get, or a progress bar while it downloads and installs;
// a failed launch is written under its row. A click anywhere on a row
// launches it; Tab reaches each row's button, which keeps the focus while its
// row changes. Rows are made once per app id and changed in place.
#pragma once

#include "apps/AppsModel.h"

#include <QPointer>
#include <QWidget>

class QVBoxLayout;

namespace tessel::app {

class AppRow;

class AppsView : public QWidget {
    Q_OBJECT

public:
    explicit AppsView(QWidget* parent = nullptr);

    // The model shown; none shows nothing. Not owned.
    void setModel(AppsModel* model);

private:
    void sync();
    void launch(const QString& id);

    QPointer<AppsModel> model_;
    QVBoxLayout* rows_ = nullptr;
    QList<AppRow*> shown_;
};

} // namespace tessel::app
