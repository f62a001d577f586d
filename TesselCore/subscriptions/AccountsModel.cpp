#include "subscriptions/AccountsModel.h"

#include <QPointer>

namespace tessel {

AccountsModel::AccountsModel(std::shared_ptr<VantorAccountsClient> client, QObject* parent)
    : QObject(parent), client_(std::move(client)) {}

void AccountsModel::setSwitchingName(std::optional<QString> name) {
    if (switchingName_ != name) {
        switchingName_ = std::move(name);
        emit switchingNameChanged();
    }
}

Task<void> AccountsModel::use(QString name) {
    if (!client_ || switchingName_) {
        co_return;
    }
    QPointer<AccountsModel> self(this);
    const auto client = client_;
    setSwitchingName(name);
    std::exception_ptr failure;
    try {
        co_await client->use(name);
    } catch (...) {
        failure = std::current_exception();
    }
    if (self) {
        setSwitchingName(std::nullopt);
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

} // namespace tessel
