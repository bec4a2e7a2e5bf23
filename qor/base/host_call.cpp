#include "host_call_internal.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>

namespace base {
namespace {

std::atomic<LastWords> theLastWords{nullptr};

} // namespace

void setLastWords(LastWords lastWords) noexcept { theLastWords.store(lastWords, std::memory_order_release); }

void endAfterException(const char* callback) noexcept {
	char line[512];
	try {
		throw;
	} catch (const std::exception& error) {
		std::snprintf(line, sizeof line, "[ERROR] an exception left the host's callback (%s): %s; the process ends",
		    callback, error.what());
	} catch (...) {
		std::snprintf(
		    line, sizeof line, "[ERROR] an exception left the host's callback (%s); the process ends", callback);
	}
	if (const auto lastWords = theLastWords.load(std::memory_order_acquire)) lastWords(line);
	std::fprintf(stderr, "%s\n", line);
	std::fflush(stderr);
	std::abort();
}

} // namespace base
