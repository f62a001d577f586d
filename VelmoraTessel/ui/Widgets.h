// Small pieces the popover and the windows share.
#pragma once

#include "app/AppModel.h"

#include <QLabel>
#include <QPushButton>
#include <QWidget>

#include <functional>

namespace tessel::app {

// A wrapping label; `secondary` for the quieter caption lines.
QLabel* textLine(const QString& text, QWidget* parent, bool secondary = false);
QPushButton* button(const QString& text, QWidget* parent, std::function<void()> action);

// "mm:ss" of a capture's elapsed seconds; minutes are not capped.
QString elapsedText(double elapsed);

// What a capture shows: state, meters, uploads, its error and its buttons.
// `inPopover` decides whether Stop opens the browser afterwards (only outside).
struct CaptureActions {
    std::function<void()> dismiss; // the popover goes first, where there is one
    std::function<void(const QString& id)> openWindow;
};
QWidget* captureStatus(AppModel& model, CaptureSession& session, bool inPopover,
                       const CaptureActions& actions, QWidget* parent);

// The model's error line, its details behind a toggle, and the settings
// button of a refused audio permission.
QWidget* modelError(AppModel& model, const std::function<void()>& dismiss, QWidget* parent);

} // namespace tessel::app
