#include "identity/Org.h"

#include "errors/Failures.h"

using namespace Qt::StringLiterals;

namespace tessel {

namespace {

bool validLabel(QStringView label) {
    return !label.isEmpty() && !label.startsWith(u'-') && !label.endsWith(u'-');
}

bool allowed(QChar c) {
    return (c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9') || c == u'-' || c == u'.';
}

} // namespace

Org Org::fromHost(const QString& text) {
    const QString host = text.toLower();
    const auto invalid = [] { return TesselError(u"Enter a valid organisation host."_s); };
    if (host.isEmpty() || !std::all_of(host.begin(), host.end(), allowed)) {
        throw invalid();
    }
    const auto labels = QStringView(host).split(u'.', Qt::KeepEmptyParts);
    if (!std::all_of(labels.begin(), labels.end(), validLabel)) {
        throw invalid();
    }
    // QUrl reads an all-digit name as an IPv4 number ("123" becomes 0.0.0.123):
    // such a host would not name what the user typed.
    const QUrl url(u"https://"_s + host, QUrl::StrictMode);
    if (!url.isValid() || url.host() != host) {
        throw invalid();
    }
    return Org{host, url, labels.front().toString()};
}

Org Org::fromURL(const QString& text) {
    const QUrl url(text, QUrl::StrictMode);
    // QUrl lower-cases the scheme, so "HTTPS://" is caught on the text itself.
    if (!url.isValid() || !text.startsWith(u"https:"_s) || url.scheme() != u"https"_s ||
        !url.userName().isEmpty() || !url.password().isEmpty() || url.port() != -1 ||
        url.host().isEmpty()) {
        throw TesselError(u"Enter an HTTPS organisation URL."_s);
    }
    return fromHost(url.host());
}

QUrl Org::meetURL() const {
    QUrl out = url;
    out.setPath(u"/meet"_s);
    return out;
}

} // namespace tessel
