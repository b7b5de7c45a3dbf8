#pragma once

#include <cstdint>

namespace kx::paging {

/// The offset of page `pageNumber` (counted from 1; 0 also means the first page) of `limit`
/// records: 0 for pages 0 and 1, otherwise (pageNumber - 1) * limit as given, held within the
/// signed 64-bit range instead of overflowing.
std::int64_t offsetForPage(std::int64_t pageNumber, std::int64_t limit) noexcept;

/// `limit`, or `defaultLimit` when it is 0.
constexpr std::int64_t limitToSend(std::int64_t limit, std::int64_t defaultLimit) noexcept {
    return limit == 0 ? defaultLimit : limit;
}

}  // namespace kx::paging
