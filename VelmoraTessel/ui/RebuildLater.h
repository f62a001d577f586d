// A view's rebuild, run once after the current event however often it is
// asked for before then: many model changes in one turn of the loop make one
// rebuild, and the click that changed a model never has its own button
// replaced under it.
#pragma once

#include <QObject>

#include <functional>

namespace tessel::app {

class RebuildLater {
public:
    // `owner` is the view that holds this; its end cancels a waiting rebuild.
    RebuildLater(QObject* owner, std::function<void()> rebuild)
        : owner_(owner), rebuild_(std::move(rebuild)) {}
    RebuildLater(const RebuildLater&) = delete;
    RebuildLater& operator=(const RebuildLater&) = delete;

    void request();

private:
    QObject* owner_;
    std::function<void()> rebuild_;
    bool pending_ = false;
};

} // namespace tessel::app
