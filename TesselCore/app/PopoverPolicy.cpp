#include "app/PopoverPolicy.h"

namespace tessel {

std::optional<PopoverAction>
PopoverPolicy::classifyLocalMouseDown(bool inPanel, std::optional<bool> targetWindowLevelIsNormal) {
    if (inPanel) {
        return PopoverAction::interactsInside;
    }
    if (!targetWindowLevelIsNormal.value_or(false)) {
        // A floating window of ours (or no window at all) leaves the popover up.
        return std::nullopt;
    }
    return PopoverAction::outsideClick;
}

bool PopoverPolicy::shouldDismiss(PopoverAction action) {
    switch (action) {
    case PopoverAction::opensWindow:
    case PopoverAction::quits:
    case PopoverAction::outsideClick:
    case PopoverAction::escape:
        return true;
    case PopoverAction::togglesDetails:
    case PopoverAction::stopAndWrite:
    case PopoverAction::interactsInside:
        return false;
    }
    return false;
}

} // namespace tessel
