#include "../platform/format.h"
#include "log_internal.h"
#include "object.h"
#include "visible_text_internal.h"

#include <cstdarg>

namespace {

constexpr size_t kObjectLogBufferSize = 16384;

/// The warning prefix is one column wider than the others; readers of logs know it so.
const char* prefixOf(int level) {
	switch (level) {
	case 1: return "BEGIN   ";
	case 2: return "END     ";
	case 3: return "[ERROR] ";
	case 4: return "[WARNING]";
	default: return "        ";
	}
}

/// Composed on the stack, without a lock: no callback of the log can hold up another object.
void writeLine(const qor& object, int level, const char* format, va_list arguments) {
	char line[kObjectLogBufferSize];
	const char* prefix = prefixOf(level);
	const core::VisibleText type(object.gettype()), subtype(object.getsubtype());
	size_t length =
	    object.getsubtype()[0]
	        ? platform::formatText(line, sizeof line, "%s[%-20s:%-20s] > ", prefix, type.get(), subtype.get())
	        : platform::formatText(line, sizeof line, "%s[%-20s] > ", prefix, type.get());
	platform::formatTextV(line + length, sizeof line - length, format ? format : "", arguments);
	// The line passes as a format without arguments, so callers double their percent signs.
	core::logAsFormat(line);
}

} // namespace

void qor::log(int level, const char* format, ...) const {
	va_list arguments;
	va_start(arguments, format);
	writeLine(*this, level, format, arguments);
	va_end(arguments);
}

void qor::log(const char* format, ...) const {
	va_list arguments;
	va_start(arguments, format);
	writeLine(*this, 0, format, arguments);
	va_end(arguments);
}
