#pragma once

#include <KXClientFramework/KXExport.h>

/// The paging state of a table screen that loads a service's pages as the user scrolls.
struct KX_EXPORT KXPagingState {
    bool pagingEnabled = false;
    long currentPage = 0;
    bool hasMoreRecords = false;
    /// True only between a next-page request and its answer.
    bool currentlyFetching = false;
    /// Becomes true when the first load ends, successfully or not, and stays.
    bool initialLoadComplete = false;

    /// The bottom is reached when the offset is at least the content height less the view's
    /// height (no extra margin).
    static bool reachedBottom(double contentOffsetY, double contentHeight, double viewHeight) {
        return contentOffsetY >= contentHeight - viewHeight;
    }

    /// Whether a scroll to this position asks for the next page: at the bottom, with more
    /// records, nothing in flight and paging on.
    bool shouldFetchMore(double contentOffsetY, double contentHeight, double viewHeight) const {
        return reachedBottom(contentOffsetY, contentHeight, viewHeight) && hasMoreRecords &&
               !currentlyFetching && pagingEnabled;
    }

    /// Steps to the next page and marks it in flight; returns the page to request.
    long beginNextPage() {
        currentPage += 1;
        currentlyFetching = true;
        return currentPage;
    }

    /// The next page's answer. A failed page is not stepped back, so the next load skips it.
    void nextPageFinished(bool succeeded, bool more) {
        currentlyFetching = false;
        if (succeeded) {
            hasMoreRecords = more;
        }
    }
};
