// The user defaults: a few small settings under fixed keys. The real store is
// QSettings in $XDG_CONFIG_HOME/Velmora/VelmoraTessel.conf; tests may hand in
// any file. An INI file keeps no types between processes (a one-element list
// reads back as a text, an empty list as nothing, false as "false"), so every
// reader here accepts what another process may have left.
#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>

#include <memory>
#include <optional>

class QSettings;

namespace tessel {

class UserDefaults {
public:
    virtual ~UserDefaults() = default;

    // The raw value; invalid when the key is absent.
    virtual QVariant value(const QString& key) const = 0;
    virtual void set(const QString& key, const QVariant& value) = 0;
    virtual void remove(const QString& key) = 0;

    // A text, or none for anything else (a list, absent).
    std::optional<QString> string(const QString& key) const;
    // A list; a single text is a list of one, an absent key an empty list.
    QStringList stringList(const QString& key) const;
    // true/false, also as the texts "true"/"false"; none for anything else.
    std::optional<bool> boolean(const QString& key) const;
    // A finite number, also as its text; none for anything else.
    std::optional<double> number(const QString& key) const;
};

class SettingsDefaults : public UserDefaults {
public:
    // The program's own file, $XDG_CONFIG_HOME/Velmora/VelmoraTessel.conf; keys of
    // an earlier VelmoraTessel.ini beside it are carried over once.
    SettingsDefaults();
    // Any INI file, for tests and tools.
    explicit SettingsDefaults(const QString& path);
    ~SettingsDefaults() override;

    QVariant value(const QString& key) const override;
    void set(const QString& key, const QVariant& value) override;
    void remove(const QString& key) override;

    // Writes what is pending to the file.
    void sync();

    // The one settings object: the program's other readers and writers (the
    // feed's state, window frames) share it instead of opening the file again.
    QSettings& settings() { return *settings_; }

private:
    std::unique_ptr<QSettings> settings_;
};

} // namespace tessel
