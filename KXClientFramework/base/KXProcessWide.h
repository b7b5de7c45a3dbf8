#pragma once

#include <utility>

/// The process-wide object of type T, made on first use (thread-safely, with `args`) and never
/// destroyed: a timer tick, a network completion or a handler that still runs while the
/// process ends always finds it. The arguments of the first call win; later calls ignore theirs.
template <typename T, typename... Args>
T& kxProcessWide(Args&&... args) {
    static T* const object = new T(std::forward<Args>(args)...);
    return *object;
}
