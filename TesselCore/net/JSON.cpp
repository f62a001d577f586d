#include "net/JSON.h"

#include "errors/Failures.h"

#include <nlohmann/json.hpp>

#include <cmath>

using namespace Qt::StringLiterals;

namespace tessel {

namespace {

using Native = nlohmann::json;

const QString unreadableText =
    u"The data couldn't be read because it isn't in the correct format."_s;

// Deeper documents are refused rather than risking the stack: building, comparing,
// writing and destroying a value all recurse once per level.
constexpr std::size_t maxDepth = 512;

// Builds the value straight from the parser's events, so every number becomes a
// double on the way in and no intermediate document is kept.
class Builder final : public nlohmann::json_sax<Native> {
public:
    JSON result;
    QString failure;

    bool null() override { return add(JSON(nullptr)); }
    bool boolean(bool value) override { return add(JSON(value)); }
    bool number_integer(number_integer_t value) override {
        return add(JSON(static_cast<double>(value)));
    }
    bool number_unsigned(number_unsigned_t value) override {
        return add(JSON(static_cast<double>(value)));
    }
    bool number_float(number_float_t value, const string_t&) override { return add(JSON(value)); }
    bool string(string_t& value) override { return add(JSON(QString::fromStdString(value))); }
    bool binary(binary_t&) override { return fail(u"binary value"_s); }

    bool start_object(std::size_t) override { return open(true); }
    bool key(string_t& value) override {
        frames_.back().key = QString::fromStdString(value);
        return true;
    }
    bool end_object() override { return close(); }
    bool start_array(std::size_t) override { return open(false); }
    bool end_array() override { return close(); }

    bool parse_error(std::size_t, const std::string&,
                     const nlohmann::detail::exception& error) override {
        // Drop nlohmann's "[json.exception.parse_error.101] " tag; keep what it says.
        QString message = QString::fromUtf8(error.what());
        if (message.startsWith(u'[')) {
            const qsizetype end = message.indexOf(u"] "_s);
            if (end >= 0) {
                message = message.mid(end + 2);
            }
        }
        return fail(message);
    }

private:
    struct Frame {
        bool isObject;
        JSON::Object object;
        JSON::Array array;
        QString key;
    };
    std::vector<Frame> frames_;

    bool fail(const QString& message) {
        failure = message;
        return false;
    }

    bool add(JSON value) {
        if (frames_.empty()) {
            result = std::move(value);
        } else if (Frame& top = frames_.back(); top.isObject) {
            // A repeated key keeps its last value.
            top.object.insert_or_assign(top.key, std::move(value));
        } else {
            top.array.push_back(std::move(value));
        }
        return true;
    }

    bool open(bool isObject) {
        if (frames_.size() >= maxDepth) {
            return fail(u"nested deeper than %1 levels"_s.arg(maxDepth));
        }
        frames_.push_back(Frame{isObject, {}, {}, {}});
        return true;
    }

    bool close() {
        Frame frame = std::move(frames_.back());
        frames_.pop_back();
        return frame.isObject ? add(JSON(std::move(frame.object)))
                              : add(JSON(std::move(frame.array)));
    }
};

Native toNative(const JSON& value) {
    switch (value.kind()) {
    case JSON::Kind::string:
        return value.string()->toStdString();
    case JSON::Kind::number: {
        const double n = *value.number();
        if (!std::isfinite(n)) {
            return nullptr;
        }
        // Whole numbers go out as integers: servers read `"version": 3`, not 3.0.
        // Past 2^53 a double no longer holds every integer, so those stay floats.
        constexpr double exactLimit = 9007199254740992.0;
        if (std::trunc(n) == n && std::fabs(n) <= exactLimit) {
            return static_cast<std::int64_t>(n);
        }
        return n;
    }
    case JSON::Kind::boolean:
        return *value.boolean();
    case JSON::Kind::object: {
        Native object = Native::object();
        for (const auto& [key, member] : *value.object()) {
            object[key.toStdString()] = toNative(member);
        }
        return object;
    }
    case JSON::Kind::array: {
        Native array = Native::array();
        for (const JSON& element : value.array()) {
            array.push_back(toNative(element));
        }
        return array;
    }
    case JSON::Kind::null:
        break;
    }
    return nullptr;
}

} // namespace

const JSON& JSON::operator[](const QString& key) const {
    static const JSON none;
    const Object* members = object();
    if (!members) {
        return none;
    }
    const auto found = members->find(key);
    return found == members->end() ? none : found->second;
}

std::optional<QString> JSON::string() const {
    if (const auto* s = std::get_if<QString>(&value_)) {
        return *s;
    }
    return std::nullopt;
}

std::optional<double> JSON::number() const {
    if (const auto* n = std::get_if<double>(&value_)) {
        return *n;
    }
    return std::nullopt;
}

std::optional<bool> JSON::boolean() const {
    if (const auto* b = std::get_if<bool>(&value_)) {
        return *b;
    }
    return std::nullopt;
}

const JSON::Array& JSON::array() const {
    static const Array none;
    const auto* a = std::get_if<Array>(&value_);
    return a ? *a : none;
}

const JSON::Object* JSON::object() const {
    return std::get_if<Object>(&value_);
}

QString JSON::requiredString(const QString& key) const {
    const std::optional<QString> member = (*this)[key].string();
    if (!member || member->isEmpty()) {
        throw TesselError(u"The server response is missing "_s + key +
                          u" — check the server version and retry."_s);
    }
    return *member;
}

JSON JSON::parse(const QByteArray& utf8) {
    Builder builder;
    // The parser itself refuses ill-formed UTF-8 and lone surrogate escapes.
    const bool parsed = Native::sax_parse(utf8.begin(), utf8.end(), &builder);
    if (!parsed) {
        throw DecodingError(unreadableText + u" ("_s + builder.failure + u")"_s);
    }
    return std::move(builder.result);
}

QByteArray JSON::dump() const {
    // nlohmann's objects are std::map keyed by UTF-8 bytes, so keys come out in
    // code point order. Text that is not valid Unicode is replaced, never thrown.
    const std::string text = toNative(*this).dump(-1, ' ', false, Native::error_handler_t::replace);
    return QByteArray::fromStdString(text);
}

} // namespace tessel
