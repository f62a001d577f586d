// The Secret Service (GNOME Keyring, KWallet) through libsecret. One item per
// account in the default collection: attributes `service` = "ai.velmora.tessel"
// and `account`, label "Velmora Tessel — <account>", so
//   secret-tool lookup service ai.velmora.tessel account HOST
// finds it. The simple password calls of libsecret report a locked item as
// absent; here every call searches, unlocks what is locked, and refuses when it
// stays locked. An unlock may show the desktop's prompt and block the caller.
//
// The session is read at every request, so one connection to the service (with
// its open session) is kept for the store's life instead of one per call; when
// the service is gone (daemon restarted, name lost) it is opened again once.
#pragma once

#include "identity/SecureStore.h"

#include <memory>

namespace tessel {

class SecretServiceStore : public SecureStore {
public:
    SecretServiceStore();
    ~SecretServiceStore() override;

    std::optional<QByteArray> read(const QString& account, Unlock unlock) const override;
    void write(const QString& account, const QByteArray& secret) const override;
    void erase(const QString& account) const override;
    QStringList accounts() const override;

private:
    struct Kept;
    template <typename Call> auto withService(Call call) const;

    const std::unique_ptr<Kept> kept_;
};

} // namespace tessel
