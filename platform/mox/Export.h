#pragma once

/// Marks what a shared library shows to its users; everything else is compiled with hidden visibility.
#define MOX_EXPORT __attribute__((visibility("default")))

/// Thread-local words that hot paths read: the library is linked at start, so its block has a fixed offset
/// and no resolver call is needed.
#define MOX_FAST_TLS __attribute__((tls_model("initial-exec")))
