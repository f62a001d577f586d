// The "conductor-setup" window: the user types the slug, the port and the
// secrets minted in the organisation's console, and watches the tool's steps.
// The secrets live only in the password fields and are dropped when the
// window hides or a real run has succeeded.
#pragma once

#include "infra/ConductorSetup.h"
#include "infra/InfraModel.h"

#include <QPointer>
#include <QUrl>
#include <QWidget>

#include <functional>
#include <map>
#include <memory>
#include <optional>

class QComboBox;
class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;
class QVBoxLayout;

namespace tessel::app {

class ConductorSetupWindow : public QWidget {
    Q_OBJECT

public:
    static inline const QString id = QStringLiteral("conductor-setup");

    // An organisation as the window offers it.
    struct Organisation {
        QString host;
        QString name;
        QUrl url;
    };
    // What the window needs of the application.
    struct Context {
        std::function<QList<Organisation>()> orgs;
        // The application's selected organisation, or else the store's current one.
        std::function<std::optional<Organisation>()> selected;
        std::function<void()> refreshOrgs;
        std::function<void(const QUrl&)> openURL;
        QUrl runbookURL;
    };

    ConductorSetupWindow(InfraModel* infra, std::unique_ptr<ConductorSetupModel> setup,
                         Context context, QWidget* parent = nullptr);

    ConductorSetupModel* setup() const { return setup_; }

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    std::optional<Organisation> selected() const;
    std::optional<InfraStatus::Organisation> selectedRow() const;
    void fillOrgs();
    void prefill();
    void hostChanged();
    void infraChanged();
    void setupChanged();
    void clearSecrets();
    void start(bool dryRun);

    QPointer<InfraModel> infra_;
    ConductorSetupModel* setup_;
    Context context_;
    QString host_;
    std::optional<qint64> nextPort_;
    bool wasRunning_ = false;

    QComboBox* orgPicker_;
    QLineEdit* slug_;
    QLineEdit* port_;
    std::map<ConductorSecret, QLineEdit*> secrets_;
    QWidget* form_;
    QLabel* notice_;
    QPushButton* dryRun_;
    QPushButton* run_;
    QProgressBar* progress_;
    QVBoxLayout* stepsColumn_;
    QWidget* steps_ = nullptr;
    QLabel* failure_;
    QLabel* complete_;
    QPushButton* openConductor_;
};

} // namespace tessel::app
