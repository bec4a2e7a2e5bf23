#include "line_split_internal.h"

#include "../platform/memory.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

namespace line_split {

namespace {

/// What post-processing trims: codes up to 32 and, the characters being signed, those above 127.
bool isTrimmed(char c) { return static_cast<signed char>(c) <= ' '; }

/// The character that a backslash and `c` stand for; 0: none, the pair is dropped.
char escaped(char c) {
	switch (c) {
	case '"':
	case '\\': return c;
	case 'n': return '\n';
	case 'r': return '\r';
	case 't': return '\t';
	default: return '\0';
	}
}

/// @param text behind the opening quote. @return characters written.
std::size_t unquote(const char* text, const char* end, char* out) {
	char* write = out;
	for (; text < end; ++text) {
		if (*text == '"') continue;
		if (*text != '\\') {
			*write++ = *text;
		} else if (++text < end) {
			if (const char c = escaped(*text)) *write++ = c;
		}
	}
	return write - out;
}

} // namespace

bool growBuffers(char*& line, char*& scratch, std::size_t bytes) {
	for (char** buffer : {&line, &scratch}) {
		auto* grown = static_cast<char*>(platform::reallocate(*buffer, bytes));
		if (!grown) return false;
		*buffer = grown;
	}
	return true;
}

void* growParameters(void* parameters, int capacity, std::size_t itemSize) {
	if (capacity > INT_MAX - kParameterGrowth) return nullptr;
	return platform::reallocate(parameters, (capacity + kParameterGrowth) * itemSize);
}

char* findStop(char* text, char* end, char separator) {
	while (text < end && *text != separator && *text != '"') ++text;
	return text;
}

char* skipQuoted(char* text, char* end, bool escapes) {
	for (++text; text < end; ++text) {
		if (*text == '"') return text + 1;
		if (escapes && *text == '\\' && (text[1] == '"' || text[1] == '\\')) ++text;
	}
	return end;
}

char* postProcess(char* start, char* end, char* scratch) {
	while (start < end && isTrimmed(*start)) ++start;
	while (end > start && isTrimmed(end[-1])) --end;
	*end = '\0';
	if (*start != '"') return start;
	const auto length = unquote(start + 1, end, scratch);
	std::memcpy(start, scratch, length);
	start[length] = '\0';
	return start;
}

char* copyText(char* out, std::size_t size, const char* text) {
	if (!out || size == 0) return out;
	if (!text) text = "";
	const auto length = std::min(std::strlen(text), size - 1);
	std::memmove(out, text, length);
	out[length] = '\0';
	return out;
}

} // namespace line_split
