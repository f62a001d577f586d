// The helper tools' state under the infrastructure rows: a failure with Retry,
// a missing Python with Install…, a bar while installing, else nothing. Built
// once and changed in place.
#pragma once

#include "tools/HelpersModel.h"

#include <QPointer>
#include <QWidget>

class QLabel;
class QProgressBar;
class QPushButton;

namespace tessel::app {

class HelpersStateStrip : public QWidget {
    Q_OBJECT

public:
    explicit HelpersStateStrip(HelpersModel* model, QWidget* parent = nullptr);

private:
    void update();

    QPointer<HelpersModel> model_;
    QLabel* line_ = nullptr;
    QPushButton* action_ = nullptr;
    QProgressBar* bar_ = nullptr;
    QLabel* installing_ = nullptr;
};

} // namespace tessel::app
