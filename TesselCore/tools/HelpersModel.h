// What the helper installation and the Python check came to, for the strip
// that shows it. Lives on the main thread; its operations never fail: their
// results land in the properties. A program that carries no helpers installs
// and checks nothing, so the strip stays empty.
#pragma once

#include "async/Async.h"
#include "tools/ToolRunner.h"

#include <QObject>
#include <QString>

#include <functional>
#include <optional>

namespace tessel {

class HelpersModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool ready READ ready NOTIFY changed)
    Q_PROPERTY(bool busy READ busy NOTIFY changed)
    Q_PROPERTY(QString error READ errorText NOTIFY changed)
    Q_PROPERTY(bool pythonMissing READ pythonMissing NOTIFY changed)

public:
    // What the strip says when `pythonMissing` holds.
    static inline const QString pythonMissingLine =
        QStringLiteral("Python 3 is missing — install the python3 package.");

    struct Dependencies {
        std::function<Task<void>()> install; // HelperInstaller::installIfNeeded
        ToolRunner python;                   // HelperPython::pythonRunner()
        ToolRunner packageTool;              // HelperPython::packageToolRunner()
        bool carried = true;                 // the program carries a helpers folder
    };

    explicit HelpersModel(Dependencies dependencies, QObject* parent = nullptr);

    bool ready() const { return ready_; }
    bool busy() const { return busy_; }
    const std::optional<QString>& error() const { return error_; }
    QString errorText() const { return error_.value_or(QString()); }
    bool pythonMissing() const { return pythonMissing_; }

    // Installs the helpers, then checks Python. Does nothing while busy, or
    // when the program carries no helpers.
    Task<void> installIfNeeded();
    // Installs the python3 package. Does nothing while busy; `pythonMissing`
    // stays until the next `installIfNeeded`.
    Task<void> installPython();

signals:
    void changed();

private:
    Dependencies dependencies_;
    bool ready_ = false;
    bool busy_ = false;
    std::optional<QString> error_;
    bool pythonMissing_ = false;
};

} // namespace tessel
