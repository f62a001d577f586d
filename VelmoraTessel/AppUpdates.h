// Updates as the tray application runs them: the feed the endpoints name,
// the AppImage this process runs from, and the relaunch into a new version.
#pragma once

#include "SingleInstance.h"
#include "app/FeedUpdateEngine.h"
#include "identity/Endpoints.h"

#include <functional>
#include <memory>

namespace tessel::app {

// `relaunch` starts the staged image and ends this program.
std::unique_ptr<FeedUpdateEngine>
makeUpdateEngine(const Endpoints& endpoints, HTTPClient http,
                 std::function<void(const QString& image)> relaunch);

// Hands the bus name over to the new version at `image`, starts it and ends
// this one through `terminate`.
void relaunchInto(const QString& image, SingleInstance& instance,
                  const std::function<void()>& terminate);

} // namespace tessel::app
