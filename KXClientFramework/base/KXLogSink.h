#pragma once

#include <KXClientFramework/KXExport.h>

#include <memory>
#include <string_view>

/// Where finished log lines go. Install your own to route the library's lines into the
/// application's logger; the default writes each line to standard error.
/// write() may be called from any thread, concurrently.
class KX_EXPORT KXLogSink {
public:
    virtual ~KXLogSink() = default;
    virtual void write(std::string_view line) = 0;
};

/// The default sink: one line per call on standard error.
class KX_EXPORT KXStandardErrorSink final : public KXLogSink {
public:
    void write(std::string_view line) override;
};
