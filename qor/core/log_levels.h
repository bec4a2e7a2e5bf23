#pragma once

/// What stands in front of a line of an object's log (`qor::log`, `Cmc::_mclog`).
inline constexpr int kQorLogPlain = 0;
inline constexpr int kQorLogBegin = 1;
inline constexpr int kQorLogEnd = 2;
inline constexpr int kQorLogError = 3;
inline constexpr int kQorLogWarning = 4;
inline constexpr int kQorLogOk = 5; ///< managed objects; plain for others
