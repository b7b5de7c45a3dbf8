#pragma once

// Marks the library's public classes and functions; everything else stays hidden.
#if defined(KX_BUILDING_LIBRARY)
#define KX_EXPORT __attribute__((visibility("default")))
#else
#define KX_EXPORT
#endif
