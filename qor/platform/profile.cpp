#include "profile.h"

#include "profile_internal.h"

#include <algorithm>
#include <cstring>

namespace platform {

bool fitsOneLine(const char* text) { return !text || std::strpbrk(text, "\r\n") == nullptr; }

uint32_t copyProfileValue(std::string_view value, char* out, uint32_t size) {
	if (!out || size == 0) return 0;
	const bool quoted =
	    value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.front() == value.back();
	if (quoted) value = value.substr(1, value.size() - 2);
	const size_t length = std::min<size_t>(value.size(), size - 1);
	std::memcpy(out, value.data(), length);
	out[length] = 0;
	return static_cast<uint32_t>(length);
}

uint32_t copyProfileFallback(const char* fallback, char* out, uint32_t size) {
	std::string_view text = fallback ? fallback : "";
	while (text.size() > 1 && text.back() == ' ') text.remove_suffix(1);
	return copyProfileValue(text, out, size);
}

} // namespace platform
