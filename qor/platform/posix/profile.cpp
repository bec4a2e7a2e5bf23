#include "../profile.h"

#include "../file.h"
#include "../folder.h"
#include "../letter_case_internal.h"
#include "../machine.h"
#include "../profile_internal.h"
#include "path_internal.h"

#include <cstdlib>
#include <exception>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/stat.h>

// Reads and changes the text of the file in place, line by line: what a caller did not ask
// to change stays to the byte, comments, blank lines and line ends included. Where a
// section or key stands twice the first one counts, as on Windows.
namespace platform {
namespace {

constexpr uint32_t kFileNotFound = 2;
constexpr uint32_t kPathNotFound = 3;
constexpr uint32_t kOutOfMemory = 8;
constexpr uint32_t kInvalidParameter = 87;
constexpr uint32_t kTooLarge = 223;
constexpr int64_t kMaximumSize = 16 << 20;
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

std::mutex gWriters; // one read-change-replace at a time in this process

bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

std::string_view trim(std::string_view text) {
	while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
	while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
	return text;
}

bool sameName(std::string_view a, std::string_view b) {
	if (a.size() != b.size()) return false;
	for (size_t i = 0; i < a.size(); ++i) {
		if (lowerCase(a[i]) != lowerCase(b[i])) return false;
	}
	return true;
}

bool isHeader(std::string_view line) { return !line.empty() && line.front() == '[' && line.rfind(']') != line.npos; }

/// Where a section and one of its keys stand; offsets into the text.
struct Place {
	bool hasSection = false;
	size_t header = 0; // start of the section
	size_t stop = 0;   // behind its last line
	size_t insert = 0; // behind its last line that is not blank
	bool hasKey = false;
	size_t line = 0;       // start of the key's line
	size_t next = 0;       // behind it
	std::string_view name; // as the file writes it
	std::string_view value;
};

void lookAtEntry(std::string_view line, std::string_view key, size_t at, size_t next, Place* place) {
	const size_t equals = line.find('=');
	if (place->hasKey || equals == line.npos || line.front() == ';') return;
	const std::string_view name = trim(line.substr(0, equals));
	if (!sameName(name, key)) return;
	place->name = name;
	place->hasKey = true;
	place->line = at;
	place->next = next;
	place->value = trim(line.substr(equals + 1));
}

/// The lines before the first header belong to the section without a name.
Place find(std::string_view text, std::string_view section, std::string_view key) {
	section = trim(section);
	key = trim(key);
	Place place;
	bool inside = section.empty();
	place.hasSection = inside;
	size_t at = text.substr(0, kByteOrderMark.size()) == kByteOrderMark ? kByteOrderMark.size() : 0;
	place.header = place.stop = place.insert = at;
	for (size_t next; at < text.size(); at = next) {
		const size_t end = text.find('\n', at);
		next = end == text.npos ? text.size() : end + 1;
		const std::string_view line = trim(text.substr(at, next - at));
		if (isHeader(line)) {
			if (inside) break;
			inside = sameName(trim(line.substr(1, line.rfind(']') - 1)), section);
			if (!inside) continue;
			place.hasSection = true;
			place.header = at;
		} else if (inside && !line.empty()) {
			lookAtEntry(line, key, at, next, &place);
		}
		if (!inside) continue;
		place.stop = next;
		if (!line.empty()) place.insert = next;
	}
	return place;
}

/// @return false with `lastError()`.
bool load(const char* path, std::string* text) {
	auto file = fileSystem().open(path, {});
	int64_t size = 0;
	if (!file || !file->size(&size)) return false;
	if (size > kMaximumSize) {
		setLastError(kTooLarge);
		return false;
	}
	text->resize(static_cast<size_t>(size));
	return file->read(text->data(), static_cast<uint32_t>(size)) == size;
}

/// Puts the new text in the file's place in one step, with the old file's permissions.
bool save(const char* path, const std::string& text) {
	NativePath native;
	if (!native.assign(path)) return false;
	char* resolved = realpath(native.text(), nullptr); // a link stays and its target changes
	const std::string target = resolved ? resolved : native.text();
	std::free(resolved);
	const std::string draft = target + '.' + std::to_string(processId()) + ".draft";
	FileSystem& files = fileSystem();
	{
		auto file = files.open(draft.c_str(), {Disposition::createAlways, kAccessWrite, kShareNone, kAttributeNormal});
		if (!file) return false;
		const auto size = static_cast<uint32_t>(text.size());
		struct stat old = {};
		if (stat(target.c_str(), &old) == 0) static_cast<void>(chmod(draft.c_str(), old.st_mode & 07777));
		if (file->write(text.data(), size) == size && files.replace(draft.c_str(), target.c_str())) return true;
	}
	const uint32_t error = lastError();
	files.remove(draft.c_str());
	setLastError(error);
	return false;
}

std::string lineEnd(const std::string& text) {
	const size_t end = text.find('\n');
	return end != text.npos && (end == 0 || text[end - 1] != '\r') ? "\n" : "\r\n";
}

/// @return false when there is nothing to change.
bool change(std::string* text, const char* section, const char* key, const char* value) {
	const Place place = find(*text, section, key ? key : "");
	if (!key) {
		if (!place.hasSection) return false;
		text->erase(place.header, place.stop - place.header);
		return true;
	}
	if (!value) {
		if (!place.hasKey) return false;
		text->erase(place.line, place.next - place.line);
		return true;
	}
	const std::string end = lineEnd(*text);
	const std::string line = std::string(place.hasKey ? place.name : trim(key)) + '=' + std::string(trim(value)) + end;
	if (place.hasKey) {
		text->replace(place.line, place.next - place.line, line);
		return true;
	}
	size_t at = place.hasSection ? place.insert : text->size();
	if (at > 0 && at == text->size() && text->back() != '\n') {
		*text += end;
		at = text->size();
	}
	text->insert(at, place.hasSection ? line : '[' + std::string(trim(section)) + ']' + end + line);
	return true;
}

int writeString(const char* section, const char* key, const char* value, const char* path) {
	const std::lock_guard<std::mutex> writer(gWriters);
	std::string text;
	// A file that is there but cannot be read must not be replaced by a new one.
	if (!load(path, &text) && lastError() != kFileNotFound) return 0;
	return !change(&text, section, key, value) || save(path, text) ? 1 : 0;
}

/// As the Windows reader: sign, base prefix, digits; what is beyond 32 bits is dropped.
int toInteger(std::string_view value) {
	size_t at = 0;
	const bool negative = !value.empty() && value[0] == '-';
	if (negative || (!value.empty() && value[0] == '+')) ++at;
	unsigned base = 10;
	if (value.size() > at + 1 && value[at] == '0') {
		const char mark = value[at + 1];
		base = mark == 'x' ? 16 : mark == 'o' ? 8 : mark == 'b' ? 2 : 10;
		if (base != 10) at += 2;
	}
	uint32_t result = 0;
	for (; at < value.size(); ++at) {
		const char c = lowerCase(value[at]);
		const unsigned digit = c >= '0' && c <= '9'   ? static_cast<unsigned>(c - '0')
		                       : c >= 'a' && c <= 'f' ? static_cast<unsigned>(c - 'a' + 10)
		                                              : 16;
		if (digit >= base) break;
		result = result * base + digit;
	}
	return static_cast<int>(negative ? 0 - result : result);
}

/// Hands the value of a key to `use`. @return false when there is none.
template <class Use>
bool withValue(const char* section, const char* key, const char* path, Use use) {
	if (!section || !key || !path || !*path) return false;
	try {
		std::string text;
		if (!load(path, &text)) return false;
		const Place place = find(text, section, key);
		if (place.hasKey) use(place.value);
		return place.hasKey;
	} catch (const std::exception&) { // out of memory
		setLastError(kOutOfMemory);
		return false;
	}
}

} // namespace

int profileGetInt(const char* section, const char* key, int fallback, const char* path) {
	char value[64];
	uint32_t length = 0;
	const bool found = withValue(
	    section, key, path, [&](std::string_view text) { length = copyProfileValue(text, value, sizeof value); });
	return found && length ? toInteger({value, length}) : fallback;
}

uint32_t profileGetString(
    const char* section, const char* key, const char* fallback, char* out, uint32_t size, const char* path) {
	if (!out || size == 0) return 0;
	uint32_t length = 0;
	const bool found =
	    withValue(section, key, path, [&](std::string_view text) { length = copyProfileValue(text, out, size); });
	return found ? length : copyProfileFallback(fallback, out, size);
}

int profileWriteString(const char* section, const char* key, const char* value, const char* path) {
	if (!section || !path || !*path || !fitsOneLine(section) || !fitsOneLine(key) || !fitsOneLine(value)) {
		setLastError(path && *path ? kInvalidParameter : kPathNotFound);
		return 0;
	}
	try {
		return writeString(section, key, value, path);
	} catch (const std::exception&) {
		setLastError(kOutOfMemory);
		return 0;
	}
}

} // namespace platform
