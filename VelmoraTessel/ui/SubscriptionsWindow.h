// The "subscriptions" window: the header with the summary, the refresh and
// its captions; the seat cards in one or two columns beside the sidebar; the
// footer. Rebuilt on every change of the watch and every 60 s; dimmed while a
// failed refresh is shown. Its frame is saved between runs; Escape closes it.
#pragma once

#include "subscriptions/SubscriptionsDashboardContent.h"
#include "subscriptions/SubscriptionsModel.h"
#include "ui/RebuildLater.h"

#include <QPointer>
#include <QSettings>
#include <QTimer>
#include <QWidget>

#include <functional>
#include <optional>

class QScrollArea;
class QVBoxLayout;

namespace tessel::app {

class SubscriptionsWindow : public QWidget {
    Q_OBJECT

public:
    static inline const QString id = QStringLiteral("subscriptions");

    struct Actions {
        std::function<void(const QUrl&)> openURL;
        // Opens the desktop's notification settings; none hides "Enable…".
        std::function<void()> notificationSettings;
        // What the header says when the reading tool is missing.
        QString notInstalled;
    };

    SubscriptionsWindow(SubscriptionsModel& model, QSettings& settings, Actions actions,
                        QWidget* parent = nullptr);
    ~SubscriptionsWindow() override;

    // The columns of cards shown now.
    int columns() const { return columns_; }

protected:
    void resizeEvent(QResizeEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    void scheduleRebuild();
    void rebuild();
    QWidget* header(const SubscriptionsDashboardContent& content);
    QWidget* cards(const SubscriptionsDashboardContent& content);
    void select(const QString& seatID);
    void saveFrame();

    QPointer<SubscriptionsModel> model_;
    QSettings& settings_;
    Actions actions_;
    QTimer minute_;
    QWidget* body_ = nullptr;
    QScrollArea* cardsArea_ = nullptr;
    std::optional<QString> selected_;
    int columns_ = 0;
    RebuildLater rebuildLater_{this, [this] { rebuild(); }};
};

} // namespace tessel::app
