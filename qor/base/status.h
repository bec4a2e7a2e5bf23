#pragma once

/// Results shared by most operations: 0 for success, this for a general failure.
inline constexpr int kQorSuccess = 0;
inline constexpr int kQorFailure = 0x10000000;

/// "Not found" of the operations that answer with an index.
inline constexpr unsigned long kQorNotFound = 0xFFFFFFFF;
