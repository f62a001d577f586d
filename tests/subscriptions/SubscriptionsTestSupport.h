// Readings written the way the tool writes them, and the pinned locale and
// zone every test of the subscription watch formats with.
#pragma once

#include "subscriptions/MeterlySnapshot.h"

#include <QLocale>
#include <QTimeZone>

namespace tessel::test {

// en_US, Europe/Berlin, for the process (the text cleaner formats in the
// process's own) and as the values handed to the presentation.
void pinLocaleAndZone();
QLocale testLocale();
QTimeZone testZone();
QDateTime at(const char* internetDate);

// A reading around `seats`, each a JSON object text; `extra` adds members
// (with a leading comma) to the reading itself.
MeterlySnapshot reading(const QStringList& seats, const QString& extra = {},
                        const QString& fetchedAt = QStringLiteral("2024-05-06T10:00:00Z"));
// A seat object's text with the required members; `extra` is spliced in at
// the end, and a key it repeats wins (the JSON reader keeps the last one).
QString seatJSON(const QString& id, const QString& provider, const QString& account,
                 const QString& extra = {}, const QString& windows = {});

} // namespace tessel::test
