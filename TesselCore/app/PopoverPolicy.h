// Which user actions end the popover. Pure, so the whole rule can be checked
// without windows.
#pragma once

#include <optional>

namespace tessel {

enum class PopoverAction {
    opensWindow,     // opens a window, a URL or another application
    togglesDetails,  // a disclosure inside the popover
    stopAndWrite,    // the call's stop button
    interactsInside, // any other click inside the popover
    quits,           // the Quit command
    outsideClick,    // a click on another window of the program
    escape,          // the Escape key
};

struct PopoverPolicy {
    // A mouse press: inside the popover, or on a window whose level is normal
    // (none: no window, or its level is unknown).
    static std::optional<PopoverAction>
    classifyLocalMouseDown(bool inPanel, std::optional<bool> targetWindowLevelIsNormal);

    static bool shouldDismiss(PopoverAction action);
};

} // namespace tessel
