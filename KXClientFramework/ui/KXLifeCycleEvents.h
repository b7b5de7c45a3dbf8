#pragma once

#include <KXClientFramework/KXApplicationTypes.h>
#include <KXClientFramework/KXExport.h>

#include <vector>

/// The life-cycle events that take an application from `from` to `to`, in the order a phone
/// posts them: a window toolkit reports only where the application ended up (active, inactive,
/// hidden), and its adapter fills in the steps between, such as resigning before entering the
/// background.
KX_EXPORT std::vector<KXApplicationEvent> kxLifeCycleEvents(KXApplicationState from,
                                                            KXApplicationState to);
