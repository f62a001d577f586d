// Drives a switch of new sessions to another account: one switch at a time,
// and `switchingName` tells the window which one is under way.
#pragma once

#include "subscriptions/VantorAccounts.h"

#include <QObject>

#include <optional>

namespace tessel {

class AccountsModel : public QObject {
    Q_OBJECT
public:
    // No client when the tool did not resolve at start; it is not looked for again.
    explicit AccountsModel(std::shared_ptr<VantorAccountsClient> client, QObject* parent = nullptr);

    const std::shared_ptr<VantorAccountsClient>& client() const { return client_; }
    const std::optional<QString>& switchingName() const { return switchingName_; }

    // Returns at once without a client or while a switch runs; otherwise runs
    // `use NAME` and passes its failure on. The tool's words are not used.
    Task<void> use(QString name);

signals:
    void switchingNameChanged();

private:
    void setSwitchingName(std::optional<QString> name);

    std::shared_ptr<VantorAccountsClient> client_;
    std::optional<QString> switchingName_;
};

} // namespace tessel
