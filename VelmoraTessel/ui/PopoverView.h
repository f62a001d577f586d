// The popover's content: a plain list of what the application model holds —
// organisation and sign-in, the call commands, the running capture or the
// calls still open, the error line, the version and Quit. Rebuilt from the
// model when it changes, and only while it is shown.
#pragma once

#include "PopoverController.h"
#include "app/AppModel.h"

#include <QPointer>
#include <QWidget>

#include <functional>

class QVBoxLayout;

namespace tessel::app {

class PopoverView : public QWidget {
    Q_OBJECT

public:
    struct Actions {
        std::function<void(const QString& id)> openWindow; // also brings the program forward
        std::function<void()> quit;                        // the one road out
        OpenURL openURL;
    };

    PopoverView(AppModel& model, PopoverController& controller, Actions actions,
                QWidget* parent = nullptr);

    // Runs `action` after taking the popover down when the policy says so.
    void perform(PopoverAction kind, const std::function<void()>& action);

protected:
    void showEvent(QShowEvent* event) override;

private:
    void scheduleRebuild();
    void rebuild();
    void addHeader();
    void addIdleBlock();
    void addFooter();

    QPointer<AppModel> model_;
    PopoverController& controller_;
    Actions actions_;
    QWidget* content_ = nullptr;
    QVBoxLayout* rows_ = nullptr;
    bool rebuildPending_ = false;
};

} // namespace tessel::app
