#pragma once

#include <utility>

/// How the library calls its host. An exception that leaves a host's callback ends the
/// process: the library has no way to tell whose work it interrupted, and a recording that
/// goes on beside it would be a guess. The last log line names the callback and what was
/// thrown; then the process aborts, so that a debugger or a dump shows the place.
///
/// Every call of a host's function goes through `callHost`, whatever thread it runs on.
namespace base {

/// Receives the last line before the process ends; must not wait without limit nor throw.
using LastWords = void (*)(const char* line) noexcept;

/// The log registers itself here; null (the start) writes to the standard error output alone.
void setLastWords(LastWords lastWords) noexcept;

/// To be called inside a `catch` block. Never returns.
[[noreturn]] void endAfterException(const char* callback) noexcept;

/// Calls `function`, which is nothing but the host's callback with its arguments.
/// @param callback what the last line calls it: "CstxClock tick".
template <class Function>
decltype(auto) callHost(const char* callback, Function&& function) noexcept {
	try {
		return std::forward<Function>(function)();
	} catch (...) {
		endAfterException(callback);
	}
}

} // namespace base
