#include "inbox/internal/KXPaging.h"

#include <limits>

namespace kx::paging {

std::int64_t offsetForPage(std::int64_t pageNumber, std::int64_t limit) noexcept {
    if (pageNumber == 0 || pageNumber == 1 || limit == 0) {
        return 0;
    }
    std::int64_t pages = 0;
    std::int64_t offset = 0;
    if (__builtin_sub_overflow(pageNumber, 1, &pages) ||
        __builtin_mul_overflow(pages, limit, &offset)) {
        // The true product's sign is the product of the signs.
        const bool negative = (pageNumber <= 0) != (limit < 0);
        return negative ? std::numeric_limits<std::int64_t>::min()
                        : std::numeric_limits<std::int64_t>::max();
    }
    return offset;
}

}  // namespace kx::paging
