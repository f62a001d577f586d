// The keychain when the keyring locks, refuses or is not there at all: a
// session once read is not lost to a lock, and without a keyring service a
// sign-in lives for the run.
#include "errors/Failures.h"
#include "identity/SessionKeychain.h"

#include <gtest/gtest.h>

#include <map>

using namespace tessel;

namespace {

class ScriptedStore : public SecureStore {
public:
    enum class State { open, locked, declined, absent };

    std::optional<QByteArray> read(const QString& account, Unlock unlock) const override {
        reads.push_back(unlock);
        refuseUnlessOpen(unlock);
        const auto found = items.find(account);
        return found == items.end() ? std::nullopt : std::optional(found->second);
    }
    void write(const QString& account, const QByteArray& secret) const override {
        refuseUnlessOpen(Unlock::ask);
        items[account] = secret;
    }
    void erase(const QString& account) const override {
        refuseUnlessOpen(Unlock::ask);
        items.erase(account);
    }
    QStringList accounts() const override {
        refuseUnlessOpen(Unlock::ask);
        QStringList out;
        for (const auto& [account, secret] : items) {
            out << account;
        }
        return out;
    }

    State state = State::open;
    mutable std::map<QString, QByteArray> items;
    mutable std::vector<Unlock> reads;

private:
    void refuseUnlessOpen(Unlock unlock) const {
        using Kind = SecureStoreRefusal::Kind;
        if (state == State::absent) {
            throw SecureStoreRefusal(2, "The name org.freedesktop.secrets was not provided",
                                     Kind::noService);
        }
        // Asked to unlock, the user declines the desktop's prompt.
        if (state == State::declined || (state == State::locked && unlock == Unlock::ask)) {
            throw SecureStoreRefusal(2, "Prompt dismissed", Kind::refused);
        }
        if (state == State::locked) {
            throw SecureStoreRefusal(4, "The collection is locked", Kind::locked);
        }
    }
};

const QDateTime clockNow = QDateTime::fromSecsSinceEpoch(1'900'000'000, Qt::UTC);
const MemberSession member{"vses_one", std::nullopt, clockNow.addSecs(3600)};

} // namespace

TEST(SessionKeychain, ALockedOrRefusingKeyringServesTheSessionAlreadyRead) {
    const auto store = std::make_shared<ScriptedStore>();
    const SessionKeychain keychain(store, [] { return clockNow; });
    store->state = ScriptedStore::State::locked;
    // Nothing read yet: the keyring's words, never a missing sign-in.
    try {
        keychain.current("acme.test");
        FAIL() << "a refusal with nothing read must not read as signed out";
    } catch (const TesselError& refused) {
        EXPECT_TRUE(refused.message().contains("The keyring refused the session"))
            << refused.message().toStdString();
    }

    store->state = ScriptedStore::State::open;
    keychain.save(member, "acme.test");
    const SessionKeychain copy = keychain; // the token provider holds a copy
    store->state = ScriptedStore::State::locked;
    store->reads.clear();
    EXPECT_EQ(copy.current("acme.test"), member);
    // While one is remembered, a request never puts the unlock prompt up.
    EXPECT_EQ(store->reads, std::vector{SecureStore::Unlock::never});
    store->state = ScriptedStore::State::declined;
    EXPECT_EQ(copy.load("acme.test"), member);

    // Unlocked again, the keyring decides once more: an item deleted meanwhile
    // is a sign-out.
    store->state = ScriptedStore::State::open;
    store->items.clear();
    EXPECT_EQ(copy.current("acme.test"), std::nullopt);
    store->state = ScriptedStore::State::locked;
    EXPECT_THROW(copy.current("acme.test"), TesselError);
}

TEST(SessionKeychain, WithoutAKeyringServiceASignInLivesForTheRun) {
    const auto store = std::make_shared<ScriptedStore>();
    store->state = ScriptedStore::State::absent;
    const SessionKeychain keychain(store, [] { return clockNow; });
    EXPECT_EQ(keychain.load("acme.test"), std::nullopt); // nothing saved is no failure
    EXPECT_EQ(keychain.hosts(), QStringList());

    EXPECT_EQ(keychain.save(member, "acme.test"), SessionKeychain::Kept::forThisRunOnly);
    EXPECT_EQ(keychain.current("acme.test"), member);
    EXPECT_EQ(keychain.hosts(), QStringList{"acme.test"});
    EXPECT_TRUE(store->items.empty());

    keychain.remove("acme.test");
    EXPECT_EQ(keychain.load("acme.test"), std::nullopt);
    EXPECT_EQ(keychain.hosts(), QStringList());

    store->state = ScriptedStore::State::open;
    EXPECT_EQ(keychain.save(member, "acme.test"), SessionKeychain::Kept::inKeyring);
}
