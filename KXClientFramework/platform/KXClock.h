#pragma once

#include <KXClientFramework/KXExport.h>

#include <chrono>

/// The wall clock, replaceable so that tests can set the time.
class KX_EXPORT KXClock {
public:
    virtual ~KXClock() = default;
    virtual std::chrono::system_clock::time_point now() const = 0;
};

/// The real system clock.
class KX_EXPORT KXSystemClock final : public KXClock {
public:
    std::chrono::system_clock::time_point now() const override {
        return std::chrono::system_clock::now();
    }
};
