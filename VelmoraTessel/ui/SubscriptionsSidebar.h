// The subscriptions window's sidebar: what needs attention, what comes up in
// the next days, and the spend order with "Edit roles…".
#pragma once

#include "subscriptions/SubscriptionsDashboardContent.h"

#include <QWidget>

#include <functional>

namespace tessel::app {

// `editRoles` opens ~/.meterly/roles.toml.
QWidget* subscriptionsSidebar(const SubscriptionsDashboardContent& content,
                              const std::function<void()>& editRoles, QWidget* parent);

} // namespace tessel::app
