#pragma once

#include <KXClientFramework/KXExport.h>

#include <vector>

/// The message viewer's three modes, fixed at construction.
enum class KXWebViewerMode { HTMLString, URL, AttributedText };

/// The items of the viewer's toolbar.
enum class KXWebToolbarItem { FixedSpace, FlexibleSpace, Back, Forward, Reload, Stop };

/// Everything the message viewer decides, without a toolkit.
struct KX_EXPORT KXWebViewerController {
    /// U+25C0 and U+25B6, each followed by the text-presentation selector U+FE0E.
    static constexpr const char* kBackTitle = "\u25C0\uFE0E";
    static constexpr const char* kForwardTitle = "\u25B6\uFE0E";
    static constexpr double kArrowWidth = 18.0;
    static constexpr double kTabletFixedSpaceWidth = 35.0;
    static constexpr const char* kDeleteTitle = "Delete";
    static constexpr const char* kDoneTitle = "Done";

    /// The web modes have a toolbar and a spinner; the text mode has neither.
    static bool isWebMode(KXWebViewerMode mode) { return mode != KXWebViewerMode::AttributedText; }

    /// Phone layout (also when the idiom is unknown): fixed, back, flexible, forward, flexible,
    /// reload-or-stop, flexible, fixed. Tablet layout: fixed, reload-or-stop, fixed, back,
    /// fixed, forward, fixed. The third button is Stop while loading, else Reload.
    static std::vector<KXWebToolbarItem> toolbarItems(bool tablet, bool loading);

    /// Delete is offered only when the viewer was pushed onto an existing stack, that is, when
    /// the stack holding it was not itself presented.
    static bool showsDeleteButton(bool insideNavigationStack, bool stackWasPresented) {
        return insideNavigationStack && !stackWasPresented;
    }
};
