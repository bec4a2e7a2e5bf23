#pragma once

#include <cstddef>

namespace core {

/// Copies a value that came from a file, the wire or a plug-in as it may stand in a log line: a line
/// feed in it must not begin a line that looks like one of the library's. Control characters become
/// "\n", "\r", "\t" or "\x1B"; everything else stays as it is. Cut to `size` - 1 characters, never
/// within an escape; null is empty; size 0 writes nothing. @return the length.
size_t copyVisible(char* out, size_t size, const char* text);

/// Such a value on the stack: `log(3, "%s is missing", core::VisibleText(path).get())`.
class VisibleText {
public:
	explicit VisibleText(const char* text) { copyVisible(mText, sizeof mText, text); }
	const char* get() const { return mText; }

private:
	char mText[1024];
};

} // namespace core
