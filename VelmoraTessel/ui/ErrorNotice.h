// The one way a failure reaches the eye: its human line in red, and its
// details behind "Details" with "Copy details". Built once where it stands and
// given each failure in place; a failure with other details closes an open
// group, so a new one never inherits it.
#pragma once

#include "app/AppModel.h"

#include <QPointer>
#include <QWidget>

#include <functional>
#include <optional>

class QLabel;
class QPushButton;
class QToolButton;
class QVBoxLayout;

namespace tessel::app {

class ErrorNotice : public QWidget {
    Q_OBJECT

public:
    explicit ErrorNotice(QWidget* parent = nullptr);
    // Hidden with no line.
    void setFailure(const std::optional<QString>& humanLine, const std::optional<QString>& details);

protected:
    QVBoxLayout* column_ = nullptr;

private:
    QLabel* line_ = nullptr;
    QToolButton* toggle_ = nullptr;
    QWidget* group_ = nullptr;
    QLabel* details_ = nullptr;
};

// The model's error; a refused audio permission adds a button that opens the
// desktop's sound settings (hidden when there are none). `dismiss` takes the
// popover down first, where there is one.
class ModelErrorView : public ErrorNotice {
    Q_OBJECT

public:
    ModelErrorView(AppModel& model, std::function<void()> dismiss, QWidget* parent = nullptr);

private:
    void update();

    QPointer<AppModel> model_;
    std::function<void()> dismiss_;
    QPushButton* settings_ = nullptr;
};

} // namespace tessel::app
