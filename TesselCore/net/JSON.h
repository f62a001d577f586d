// The generic JSON value every answer without a fixed shape is read with.
// Every number is a 64-bit float, integers too; a top-level scalar is a valid
// document; objects keep their keys sorted, so written bodies are stable.
#pragma once

#include <QByteArray>
#include <QString>
#include <map>
#include <optional>
#include <variant>
#include <vector>

namespace tessel {

class JSON {
public:
    using Object = std::map<QString, JSON>;
    using Array = std::vector<JSON>;
    enum class Kind { string, number, boolean, object, array, null };

    JSON() : value_(nullptr) {}
    JSON(std::nullptr_t) : value_(nullptr) {}
    JSON(QString s) : value_(std::move(s)) {}
    JSON(const char* s) : value_(QString::fromUtf8(s)) {}
    JSON(double n) : value_(n) {}
    JSON(int n) : value_(static_cast<double>(n)) {}
    JSON(bool b) : value_(b) {}
    JSON(Object o) : value_(std::move(o)) {}
    JSON(Array a) : value_(std::move(a)) {}

    Kind kind() const { return static_cast<Kind>(value_.index()); }
    bool isNull() const { return kind() == Kind::null; }
    bool isObject() const { return kind() == Kind::object; }

    // Member of an object; null for an absent key or for any other case.
    const JSON& operator[](const QString& key) const;
    const JSON& operator[](const char* key) const { return (*this)[QString::fromUtf8(key)]; }

    std::optional<QString> string() const;
    std::optional<double> number() const;
    std::optional<bool> boolean() const;
    const Array& array() const;   // empty for any other case
    const Object* object() const; // nullptr for any other case

    // A member that must be a non-empty string; throws TesselError
    // "The server response is missing <key> — check the server version and retry."
    QString requiredString(const QString& key) const;

    // Throws DecodingError when the text is not one JSON value.
    static JSON parse(const QByteArray& utf8);
    QByteArray dump() const;

    bool operator==(const JSON& other) const = default;

private:
    std::variant<QString, double, bool, Object, Array, std::nullptr_t> value_;
};

} // namespace tessel
