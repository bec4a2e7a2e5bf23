#include "../base/wait_guard.h"
#include "../platform/format.h"
#include "../platform/memory.h"
#include "managed_object.h"
#include "runtime.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>

namespace {

constexpr std::size_t kTextSize = 4096;
constexpr int kMaximumIndent = 63; // levels
constexpr int kIndentWidth = 4;    // blanks a level

/// One text is composed at a time for all objects. Neither the lock nor the buffer is ever freed:
/// objects may log while the process ends.
platform::WaitHandle logLock() {
	static const platform::WaitHandle lock = platform::createMutex(false);
	return lock;
}

/// Made by the first text; under the log lock.
char* textBuffer() {
	static constinit char* buffer = nullptr;
	if (!buffer) buffer = static_cast<char*>(platform::allocate(kTextSize));
	return buffer;
}

const char* levelPrefix(int level) {
	switch (level) {
	case 1: return "[BEGIN] ";
	case 2: return "[ END ] ";
	case 3: return "[ERROR] ";
	case 4: return "[WARNING] ";
	case 5: return "[OK] ";
	default: return "";
	}
}

void write(const Cmc& object, const char* prefix, const char* format, va_list arguments) {
	const base::MutexGuard guard(logLock());
	char* text = guard.owns() ? textBuffer() : nullptr;
	if (!text) return;
	platform::formatTextV(text, kTextSize, format ? format : "", arguments);
	const char* name = object.getname();
	if (*name) {
		appmsg("%s[%s] <%s> : %s", prefix, object.gettype(), name, text);
	} else {
		appmsg("%s[%s] : %s", prefix, object.gettype(), text);
	}
}

} // namespace

void Cmc::_mclog(const char* format, ...) const {
	va_list arguments;
	va_start(arguments, format);
	write(*this, "", format, arguments);
	va_end(arguments);
}

void Cmc::_mclog(int level, const char* format, ...) const {
	va_list arguments;
	va_start(arguments, format);
	write(*this, levelPrefix(level), format, arguments);
	va_end(arguments);
}

void Cmc::_mclogtree() {
	constexpr int kCapacity = 1000;
	auto* sequence = _mcAllocSeqHdr(kCapacity);
	if (!sequence) return;
	_mcfillseq(sequence);
	char indent[kMaximumIndent * kIndentWidth + 1];
	std::memset(indent, ' ', sizeof indent - 1);
	indent[sizeof indent - 1] = '\0';
	for (int i = 0; i < sequence->mCount; ++i) {
		const auto& item = sequence->mItems[i];
		const int levels = std::min(item.mDepth, kMaximumIndent);
		appmsg("%s%s (%s)", indent + (kMaximumIndent - levels) * kIndentWidth, item.mObject->getname(),
		    item.mObject->gettype());
	}
	_mcFreeSeqHdr(sequence);
}
