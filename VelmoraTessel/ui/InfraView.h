// The menu's block for the local infrastructure of one organisation: conductor,
// tunnel and agent supervisor with their state dots, and the buttons that open,
// restart or set up a conductor. Its rows are built once and follow the model
// in place, so a button keeps its focus through a refresh.
#pragma once

#include "infra/InfraModel.h"

#include <QPointer>
#include <QUrl>
#include <QWidget>

#include <functional>
#include <optional>

class QLabel;
class QPushButton;
class QToolButton;

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
    struct Dot;
    void update();
    void leaveTo(const QUrl& url);

    QPointer<InfraModel> model_;
    Actions actions_;
    QString host_;
    QString name_;
    std::optional<InfraStatus::Organisation> row_; // the organisation's row of the last report
    QLabel* heading_ = nullptr;
    QLabel* notInstalled_ = nullptr;
    QLabel* reading_ = nullptr;
    QWidget* rows_ = nullptr;
    Dot* conductorDot_ = nullptr;
    QLabel* conductor_ = nullptr;
    QToolButton* open_ = nullptr;
    QToolButton* restart_ = nullptr;
    QPushButton* setup_ = nullptr;
    Dot* tunnelDot_ = nullptr;
    QLabel* tunnel_ = nullptr;
    QToolButton* log_ = nullptr;
    Dot* supervisorDot_ = nullptr;
    QLabel* supervisor_ = nullptr;
    QPushButton* supervisorSetup_ = nullptr;
    QLabel* supervisorLine_ = nullptr;
    QLabel* error_ = nullptr;
};

} // namespace tessel::app
