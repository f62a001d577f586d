// The Secret Service (GNOME Keyring, KWallet) through libsecret. One item per
// account in the default collection: attributes `service` = "ai.velmora.tessel"
// and `account`, label "Velmora Tessel — <account>", so
//   secret-tool lookup service ai.velmora.tessel account HOST
// finds it. The simple password calls of libsecret report a locked item as
// absent; here every call searches, unlocks what is locked, and refuses when it
// stays locked. An unlock may show the desktop's prompt and block the caller.
#pragma once

#include "identity/SecureStore.h"

namespace tessel {

class SecretServiceStore : public SecureStore {
public:
    std::optional<QByteArray> read(const QString& account) const override;
    void write(const QString& account, const QByteArray& secret) const override;
    void erase(const QString& account) const override;
    QStringList accounts() const override;
};

} // namespace tessel
