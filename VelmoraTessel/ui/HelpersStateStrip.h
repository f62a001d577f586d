// The helper tools' state under the infrastructure rows: a failure with Retry,
// a missing Python with Install…, a bar while installing, else nothing.
#pragma once

#include "tools/HelpersModel.h"

#include <QPointer>
#include <QWidget>

class QHBoxLayout;

namespace tessel::app {

class HelpersStateStrip : public QWidget {
    Q_OBJECT

public:
    explicit HelpersStateStrip(HelpersModel* model, QWidget* parent = nullptr);

private:
    void rebuild();

    QPointer<HelpersModel> model_;
    QHBoxLayout* row_ = nullptr;
};

} // namespace tessel::app
