#include "visible_text_internal.h"

#include <cstring>

namespace core {

namespace {

/// @return characters of the escape in `out`; 1 for a character that is visible itself.
size_t escape(unsigned char c, char (&out)[4]) {
	constexpr char kDigits[] = "0123456789ABCDEF";
	if (c >= ' ' && c != 0x7F) return out[0] = static_cast<char>(c), 1;
	out[0] = '\\';
	switch (c) {
	case '\n': return out[1] = 'n', 2;
	case '\r': return out[1] = 'r', 2;
	case '\t': return out[1] = 't', 2;
	default: out[1] = 'x', out[2] = kDigits[c >> 4], out[3] = kDigits[c & 15]; return 4;
	}
}

} // namespace

size_t copyVisible(char* out, size_t size, const char* text) {
	if (!out || size == 0) return 0;
	size_t length = 0;
	for (; text && *text; ++text) {
		char written[4];
		const size_t count = escape(static_cast<unsigned char>(*text), written);
		if (count > size - 1 - length) break;
		std::memcpy(out + length, written, count);
		length += count;
	}
	out[length] = 0;
	return length;
}

} // namespace core
