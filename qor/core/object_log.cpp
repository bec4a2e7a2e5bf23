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

} // namespace

/// A text as it may stand in a line: one that was loaded may hold line feeds.
const char* qor::logged(const char* text, char (&visible)[4 * kQorTextSize]) const {
	if (!mLoaded) return text;
	core::copyVisible(visible, sizeof visible, text);
	return visible;
}

/// Composed on the stack, without a lock: no callback of the log can hold up another object.
void qor::writeLine(int level, const char* format, va_list arguments) const {
	char line[kObjectLogBufferSize];
	const char* prefix = prefixOf(level);
	char types[4 * kQorTextSize], subtypes[4 * kQorTextSize];
	const char* type = logged(mType, types);
	const char* subtype = logged(mSubType, subtypes);
	size_t length = mSubType[0] ? platform::formatText(line, sizeof line, "%s[%-20s:%-20s] > ", prefix, type, subtype)
	                            : platform::formatText(line, sizeof line, "%s[%-20s] > ", prefix, type);
	platform::formatTextV(line + length, sizeof line - length, format ? format : "", arguments);
	// The line passes as a format without arguments, so callers double their percent signs.
	core::logAsFormat(line);
}

void qor::log(int level, const char* format, ...) const {
	va_list arguments;
	va_start(arguments, format);
	writeLine(level, format, arguments);
	va_end(arguments);
}

void qor::log(const char* format, ...) const {
	va_list arguments;
	va_start(arguments, format);
	writeLine(0, format, arguments);
	va_end(arguments);
}
