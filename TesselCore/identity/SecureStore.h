// The seam to the desktop's secure store: one small secret per account of the
// program's service. The real one is the Secret Service (SecretServiceStore);
// tests may stand a fake behind it.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <exception>
#include <optional>

namespace tessel {

// The store would not do what was asked: locked and not unlocked, no
// collection, no service on the bus. Never thrown for a plain absence.
class SecureStoreRefusal : public std::exception {
public:
    enum class Kind {
        refused,
        locked,    // the item's collection stays locked
        noService, // no keyring daemon answers: nothing can be saved or there
    };
    SecureStoreRefusal(qint64 code, QString message, Kind kind = Kind::refused)
        : code(code), message(std::move(message)), kind(kind), what_(this->message.toUtf8()) {}
    const char* what() const noexcept override { return what_.constData(); }

    qint64 code;
    QString message;
    Kind kind;

private:
    QByteArray what_;
};

class SecureStore {
public:
    virtual ~SecureStore() = default;

    // Whether a read may unlock a locked item, which can put the desktop's
    // unlock prompt in front of the user and block until it is answered.
    enum class Unlock { ask, never };

    // The secret of `account`, or none when there is no item. With
    // `Unlock::never` a locked item is refused as locked.
    virtual std::optional<QByteArray> read(const QString& account, Unlock unlock) const = 0;
    // Replaces the secret of `account`, or adds an item for it.
    virtual void write(const QString& account, const QByteArray& secret) const = 0;
    // Removes the item; an absent one is no failure.
    virtual void erase(const QString& account) const = 0;
    // The accounts that have an item, in the store's order.
    virtual QStringList accounts() const = 0;
};

} // namespace tessel
