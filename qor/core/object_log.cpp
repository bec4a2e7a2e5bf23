#include "object.h"

#include "../platform/format.h"
#include "../platform/memory.h"
#include "log_internal.h"

#include <cstdarg>
#include <mutex>

namespace {

constexpr size_t kObjectLogBufferSize = 16384;

/// What composing an object's line needs: one for all objects, never destroyed.
///
/// Lock order: `mutex` before the log lock. It is recursive, as a log callback may log
/// through an object; the buffers are free again by then.
struct ObjectLog {
	std::recursive_mutex mutex;
	char* text = nullptr; // the caller's text, formatted
	char* line = nullptr; // the whole line
};

ObjectLog& objectLog() {
	static union Permanent {
		Permanent() : log() {}
		~Permanent() {}
		ObjectLog log;
	} permanent;
	return permanent.log;
}

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

bool haveBuffer(char*& buffer) {
	if (!buffer) buffer = static_cast<char*>(platform::allocate(kObjectLogBufferSize));
	return buffer != nullptr;
}

void writeLine(const qor& object, int level, const char* format, va_list arguments) {
	ObjectLog& log = objectLog();
	const std::lock_guard guard(log.mutex);
	if (!haveBuffer(log.text) || !haveBuffer(log.line)) return; // no memory: the line is dropped
	platform::formatTextV(log.text, kObjectLogBufferSize, format ? format : "", arguments);
	const char* prefix = prefixOf(level);
	if (object.getsubtype()[0]) {
		platform::formatText(log.line, kObjectLogBufferSize, "%s[%-20s:%-20s] > %s", prefix, object.gettype(),
		    object.getsubtype(), log.text);
	} else {
		platform::formatText(log.line, kObjectLogBufferSize, "%s[%-20s] > %s", prefix, object.gettype(), log.text);
	}
	// The line passes as a format without arguments, so callers double their percent signs.
	core::logAsFormat(log.line);
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
