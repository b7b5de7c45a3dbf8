#pragma once

#include <KXClientFramework/KXBackgroundQueue.h>

/// A new serial queue for a cryptor's work or responses.
///
/// Cryptors run on a small thread pool of their own rather than on the platform's background
/// queue: the synchronous wrapper blocks its caller until the work is done, and a caller that is
/// itself a background-queue thread must never wait for work that needs that same pool.
KXSerialQueue TZNewSerialQueue();
