// "Take notes on this call": the call's name, who is on the other side, the
// disclosure the person says first and acknowledges, and Start. Its fields
// live only while it is shown, so no acknowledgement carries over to the
// next call.
#pragma once

#include "app/AppModel.h"

#include <QCheckBox>
#include <QLineEdit>
#include <QPointer>
#include <QPushButton>
#include <QWidget>

class QVBoxLayout;

namespace tessel::app {
class CaptureStatusView;
}

namespace tessel::app {

class CallWindow : public QWidget {
    Q_OBJECT

public:
    static const QString disclosure;

    CallWindow(AppModel& model, std::function<void(const QString&)> openWindow,
               QWidget* parent = nullptr);

protected:
    void hideEvent(QHideEvent* event) override;

private:
    void refresh();
    bool canStart() const;

    QPointer<AppModel> model_;
    std::function<void(const QString&)> openWindow_;
    QLineEdit* title_;
    QLineEdit* counterpart_;
    QLineEdit* project_;
    QPushButton* copy_;
    QCheckBox* ack_;
    QPushButton* cancel_;
    QPushButton* start_;
    QWidget* preparing_ = nullptr;
    QPushButton* signIn_ = nullptr;
    CaptureStatusView* capture_ = nullptr;
};

} // namespace tessel::app
