// "Sign in to Velmora": the organisation's address, the device code to
// approve in the browser, and Sign in. Closing the window ends the sign-in.
#pragma once

#include "app/AppModel.h"

#include <QLineEdit>
#include <QPointer>
#include <QPushButton>
#include <QWidget>

class QLabel;
class QVBoxLayout;

namespace tessel::app {

class LoginWindow : public QWidget {
    Q_OBJECT

public:
    LoginWindow(AppModel& model, OpenURL openURL, QWidget* parent = nullptr);

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void refresh();

    QPointer<AppModel> model_;
    OpenURL openURL_;
    QLineEdit* address_;
    QPushButton* signIn_;
    QWidget* grant_ = nullptr;
    QLabel* enterAt_ = nullptr;
    QLabel* code_ = nullptr;
    bool succeeded_ = false;
};

} // namespace tessel::app
