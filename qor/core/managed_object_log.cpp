#include "../platform/format.h"
#include "managed_object_internal.h"
#include "runtime.h"
#include "visible_text_internal.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>

namespace {

constexpr std::size_t kTextSize = 4096;
constexpr int kMaximumIndent = 63; // levels
constexpr int kIndentWidth = 4;    // blanks a level

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

/// A name as it may stand in a line: one that came with XML text may hold line feeds.
class LoggedName {
public:
	explicit LoggedName(const Cmc& object)
	    : mName(core::nameOf(object)), mFromFile(object._mcHasFlag(Cmc::kFlagFromXml) != 0),
	      mVisible(mFromFile ? mName : nullptr) {}
	const char* get() const { return mFromFile ? mVisible.get() : mName; }

private:
	const char* mName;
	bool mFromFile;
	core::VisibleText mVisible;
};

/// Composed on the stack, without a lock: no callback of the log can hold up another object.
void write(const Cmc& object, const char* prefix, const char* format, va_list arguments) {
	char text[kTextSize];
	platform::formatTextV(text, sizeof text, format ? format : "", arguments);
	const LoggedName name(object);
	if (*name.get()) {
		appmsg("%s[%s] <%s> : %s", prefix, core::typeOf(object), name.get(), text);
	} else {
		appmsg("%s[%s] : %s", prefix, core::typeOf(object), text);
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
	char indent[kMaximumIndent * kIndentWidth + 1];
	std::memset(indent, ' ', sizeof indent - 1);
	indent[sizeof indent - 1] = '\0';
	core::ManagedWalk walk;
	const auto visit = [&](Cmc* object) {
		const int levels = std::min(walk.depth(), kMaximumIndent);
		if (walk.enter(object) != core::ManagedWalk::Entered::yes) return;
		appmsg("%s%s (%s)", indent + (kMaximumIndent - levels) * kIndentWidth, LoggedName(*object).get(),
		    core::typeOf(*object));
		walk.open();
	};
	visit(this);
	while (walk.depth() > 0) {
		if (Cmc* child = walk.next()) {
			visit(child);
		} else {
			walk.leave();
		}
	}
}
