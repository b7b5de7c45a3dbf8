#pragma once

#include <KXClientFramework/KXExport.h>

#include <atomic>
#include <cstddef>
#include <memory>

/// How many requests the library has started and not yet finished, process-wide.
///
/// A request counts from the moment it is handed to the transport until its completion has run
/// on the main queue. A request waiting in the token gate counts until the gate lets it go or
/// fails it; when the token endpoint's answer is dropped (2xx without JSON) that never happens,
/// and the request stays counted, as waiting for a token, for good. A command-line tool or a
/// test waits for requestsUnderWay() == 0 to know that the library is idle; an application has
/// no need for it.
class KX_EXPORT KXTransportActivity {
public:
    /// Held while a request is on the network; the count drops when the last copy is destroyed.
    class Mark {
    public:
        Mark();
        ~Mark();
        Mark(const Mark&) = delete;
        Mark& operator=(const Mark&) = delete;
    };

    /// A request in the token gate. It stops counting only when end() is called (once is
    /// enough), not when it is destroyed: a request whose callbacks are dropped waits for ever.
    class TokenWait {
    public:
        TokenWait();
        void end();
        TokenWait(const TokenWait&) = delete;
        TokenWait& operator=(const TokenWait&) = delete;

    private:
        std::atomic<bool> ended_{false};
    };

    /// A new mark, to be captured by every callback that carries the request forward.
    static std::shared_ptr<Mark> begin();
    static std::shared_ptr<TokenWait> beginTokenWait();

    /// Requests on the network or in the token gate.
    static std::size_t requestsUnderWay();
    /// Of those, the requests waiting in the token gate.
    static std::size_t requestsWaitingForToken();
};
