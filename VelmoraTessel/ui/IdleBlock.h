// What the popover shows with no capture: the call just saved, the search
// for calls left open on the server, and one row per open call with its stop
// and its notes. Each row stands by its own test, so several can show at once.
// Built once; a call's row lives as long as the call is listed, so its buttons
// keep their focus while the list around them changes.
#pragma once

#include "app/AppModel.h"

#include <QPointer>
#include <QWidget>

#include <functional>
#include <map>

class QLabel;
class QProgressBar;
class QToolButton;
class QVBoxLayout;

namespace tessel::app {

class IdleBlock : public QWidget {
    Q_OBJECT

public:
    // `dismiss` takes the popover down before a window or the browser opens.
    IdleBlock(AppModel& model, std::function<void()> dismiss, QWidget* parent = nullptr);

private:
    struct Row {
        QWidget* box;
        QLabel* text;
        QToolButton* stop;
    };
    void update();
    Row makeRow(const QString& id);

    QPointer<AppModel> model_;
    std::function<void()> dismiss_;
    QLabel* saved_ = nullptr;
    QLabel* looking_ = nullptr;
    QProgressBar* busy_ = nullptr;
    QVBoxLayout* calls_ = nullptr;
    std::map<QString, Row> rows_;
};

} // namespace tessel::app
