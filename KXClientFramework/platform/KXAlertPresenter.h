#pragma once

#include <KXClientFramework/KXExport.h>

#include <string>
#include <vector>

/// A modal notice with a title, a message and buttons.
struct KXAlert {
    std::string title;
    std::string message;
    std::vector<std::string> buttons;
};

/// Shows alerts to the user. The default writes them to the log sink.
class KX_EXPORT KXAlertPresenter {
public:
    virtual ~KXAlertPresenter() = default;
    virtual void present(const KXAlert& alert) = 0;
};
