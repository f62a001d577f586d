// The generic JSON value: what parses, what it becomes, and what goes out.
#include "errors/Failures.h"
#include "net/JSON.h"

#include <gtest/gtest.h>

#include <limits>

using namespace tessel;
using namespace Qt::StringLiterals;

namespace {

JSON parse(const char* text) {
    return JSON::parse(QByteArray(text));
}

TEST(JSONTest, ValuesKeepTheirKindAndCompareByStructure) {
    EXPECT_EQ(parse(" null ").kind(), JSON::Kind::null);
    EXPECT_EQ(parse(R"("caf\u00e9 ☕")").string(), u"café ☕"_s);
    EXPECT_EQ(parse("-2.5e3").number(), -2500.0);
    EXPECT_EQ(parse("18446744073709551617").number(), 18446744073709551616.0);
    // A number never turns into a bool or back, however alike they look.
    EXPECT_NE(parse("1"), parse("true"));
    EXPECT_NE(parse("0"), parse("false"));
    EXPECT_FALSE(parse("1").boolean());
    EXPECT_FALSE(parse("true").number());

    const JSON parsed = parse(R"({"b": [1, {"c": null}], "a": "x", "n": 7.0})");
    EXPECT_EQ(parsed, JSON(JSON::Object{
                          {u"a"_s, "x"},
                          {u"b"_s, JSON::Array{1, JSON::Object{{u"c"_s, nullptr}}}},
                          {u"n"_s, 7},
                      }));
    EXPECT_NE(parsed, parse(R"({"b": [1, {"c": false}], "a": "x", "n": 7})"));
    EXPECT_NE(parse("[1, 2]"), parse("[2, 1]"));
    // Asking a value of the wrong kind gives nothing, never a crash.
    EXPECT_TRUE(parsed["a"]["deeper"].isNull());
    EXPECT_TRUE(parsed["missing"].isNull());
    EXPECT_TRUE(JSON(5).array().empty());
    EXPECT_EQ(JSON(5).object(), nullptr);
    EXPECT_FALSE(JSON(5).string());
}

TEST(JSONTest, RejectsWhatIsNotOneValue) {
    const std::string deep = std::string(513, '[') + std::string(513, ']');
    for (const char* document :
         {"", "   ", "{", "[1,]", R"({"a" 1})", "1 2", "NaN", "1e400", "'single'", "\"\xff\"",
          "\"\xc0\xaf\"", R"("\ud800")", R"("\udc00x")", "// comment\n1", deep.c_str()}) {
        EXPECT_THROW(JSON::parse(QByteArray(document)), DecodingError) << document;
    }
    EXPECT_NO_THROW(JSON::parse(QByteArray(512, '[') + QByteArray(512, ']')));
}

TEST(JSONTest, RequiredStringRefusesAnythingButANonEmptyString) {
    const JSON object = parse(R"({"id": "abc", "empty": "", "count": 3, "nested": {"id": "x"}})");
    EXPECT_EQ(object.requiredString(u"id"_s), u"abc"_s);
    const std::pair<JSON, QString> refused[] = {
        {object, u"empty"_s},  {object, u"absent"_s},         {object, u"count"_s},
        {object, u"nested"_s}, {parse(R"(["id"])"), u"id"_s}, {parse(R"("id")"), u"id"_s},
    };
    for (const auto& [value, key] : refused) {
        EXPECT_THROW(value.requiredString(key), TesselError) << key.toStdString();
    }
    // The words the error presentation knows an incomplete answer by.
    try {
        object.requiredString(u"absent"_s);
    } catch (const TesselError& error) {
        EXPECT_TRUE(error.message().startsWith(u"The server response is missing absent"_s));
    }
}

TEST(JSONTest, DumpSortsKeysWritesWholeNumbersAsIntegersAndRoundTrips) {
    const JSON body(JSON::Object{
        {u"version"_s, 3.0},
        {u"b"_s, JSON::Array{0.1, -0.0, 1e300, 9007199254740992.0, 9007199254740994.0}},
        {u"a"_s, JSON::Object{{u"z"_s, true}, {u"y"_s, nullptr}}},
        {u"text"_s, u"quote \" and é"_s},
    });
    EXPECT_EQ(body.dump(),
              QByteArray(R"({"a":{"y":null,"z":true},"b":[0.1,0,1e+300,9007199254740992,)"
                         R"(9.007199254740994e+15],"text":"quote \" and é","version":3})"));
    const JSON nonFinite(JSON::Array{std::numeric_limits<double>::quiet_NaN(),
                                     -std::numeric_limits<double>::infinity()});
    EXPECT_EQ(nonFinite.dump(), QByteArray("[null,null]"));
    const JSON original = parse(R"({"k": [1.5, 0.30000000000000004, -12, "\u0000\n", {}, []]})");
    EXPECT_EQ(JSON::parse(original.dump()), original);
}

} // namespace
