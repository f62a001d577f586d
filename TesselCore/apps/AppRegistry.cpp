#include "apps/AppRegistry.h"

using namespace Qt::StringLiterals;

namespace tessel::AppRegistry {

namespace {

QUrl onHost(const QString& host, const QString& path) {
    return QUrl(u"https://"_s + host + path);
}

QStringList orgArguments(const LaunchOrg& org) {
    return {u"--org"_s, org.url.toString(QUrl::FullyEncoded)};
}

} // namespace

std::vector<VelmoraApp> apps(const QString& defaultOrgHost, HandoffWriter writeHandoff) {
    return {
        {u"desktop"_s, u"Velmora"_s, u"desktop"_s, u"macwindow"_s, u"ai.velmora.desktop"_s,
         std::nullopt, onHost(defaultOrgHost, u"/desktop"_s), orgArguments},
        {u"lookout"_s, u"The Lookout"_s, u"radio player"_s, u"radio"_s, u"ai.velmora.lookout"_s,
         std::nullopt, onHost(defaultOrgHost, u"/meet/download/TheLookout.zip"_s),
         [writeHandoff](const LaunchOrg& org) {
             QStringList arguments = orgArguments(org);
             if (const auto path = writeHandoff ? writeHandoff(org.host) : std::nullopt) {
                 arguments << u"--session-file"_s << *path;
             }
             return arguments;
         }},
        {u"meet"_s,
         u"Meet"_s,
         u"calls"_s,
         u"video"_s,
         std::nullopt,
         onHost(defaultOrgHost, u"/meet"_s),
         std::nullopt,
         {}},
    };
}

} // namespace tessel::AppRegistry
