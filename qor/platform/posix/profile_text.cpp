#include "profile_text_internal.h"

#include "../letter_case_internal.h"

#include <algorithm>
#include <iterator>

namespace platform::profile_text {
namespace {

/// Whether a line is a section's: everything up to the last bracket is its name.
bool isHeader(std::string_view line) { return !line.empty() && line.front() == '[' && line.rfind(']') != line.npos; }

/// The mark that ended files of older systems is a blank, too.
bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r') || c == '\x1A'; }

std::string_view trimStart(std::string_view text) {
	while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
	return text;
}

std::string_view trim(std::string_view text) {
	text = trimStart(text);
	while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
	return text;
}

bool sameName(std::string_view a, std::string_view b) {
	return std::equal(
	    a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return lowerCase(x) == lowerCase(y); });
}

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
	bool hasValue = false;
	std::string_view value;
};

void lookAtEntry(std::string_view line, std::string_view key, size_t at, size_t next, Place* place) {
	const size_t equals = line.find('=');
	const std::string_view name = trim(line.substr(0, equals));
	if (place->hasKey || !sameName(name, key)) return;
	place->name = name;
	place->hasKey = true;
	place->line = at;
	place->next = next;
	place->hasValue = equals != line.npos;
	if (place->hasValue) place->value = trim(line.substr(equals + 1));
}

/// Behind the line that begins at `at`, whatever ends it.
size_t nextLine(std::string_view text, size_t at) {
	const size_t end = text.find_first_of("\r\n", at);
	if (end == text.npos) return text.size();
	return text.substr(end, 2) == "\r\n" ? end + 2 : end + 1;
}

/// The lines before the first header belong to the section without a name.
Place findPlace(std::string_view text, std::string_view section, std::string_view key) {
	section = trim(section);
	key = trim(key);
	Place place;
	bool inside = section.empty();
	place.hasSection = inside;
	for (size_t at = 0, next; at < text.size(); at = next) {
		next = nextLine(text, at);
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

/// What ends the first line ends new ones.
std::string lineEnd(std::string_view text) {
	const size_t end = text.find_first_of("\r\n");
	if (end == text.npos || text.substr(end, 2) == "\r\n") return "\r\n";
	return std::string(1, text[end]);
}

// ---- Characters ----

constexpr char32_t kUnknown = 0xFFFD;
/// What the Western code page has from 0x80 on; the rest of it is as in Unicode.
constexpr char32_t kWestern[] = {0x20AC, 0x81, 0x201A, 0x192, 0x201E, 0x2026, 0x2020, 0x2021, 0x2C6, 0x2030, 0x160,
    0x2039, 0x152, 0x8D, 0x17D, 0x8F, 0x90, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014, 0x2DC, 0x2122,
    0x161, 0x203A, 0x153, 0x9D, 0x17E, 0x178};

char toWestern(char32_t character) {
	if (character < 0x80 || (character >= 0xA0 && character <= 0xFF)) return static_cast<char>(character);
	const auto* found = std::find(std::begin(kWestern), std::end(kWestern), character);
	return found == std::end(kWestern) ? '?' : static_cast<char>(0x80 + (found - std::begin(kWestern)));
}

char32_t fromWestern(char byte) {
	const auto code = static_cast<unsigned char>(byte);
	return code >= 0x80 && code < 0xA0 ? kWestern[code - 0x80] : code;
}

void appendUtf8(std::string* out, char32_t c) {
	if (c < 0x80) {
		*out += static_cast<char>(c);
		return;
	}
	const int more = c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
	static constexpr unsigned kLead[] = {0, 0xC0, 0xE0, 0xF0};
	*out += static_cast<char>(kLead[more] | c >> (6 * more));
	for (int i = more - 1; i >= 0; --i) *out += static_cast<char>(0x80 | (c >> (6 * i) & 0x3F));
}

/// Takes one character off; a byte that begins none is unknown. Single surrogates pass: they
/// came from a file and go back there.
char32_t takeUtf8(std::string_view* text) {
	const auto byte = [text](size_t i) { return static_cast<unsigned char>((*text)[i]); };
	const unsigned lead = byte(0);
	const size_t more = lead < 0x80 ? 0 : lead >= 0xF0 && lead < 0xF8 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : 4;
	char32_t character = more == 0 ? lead : lead & (0x3F >> more);
	size_t used = 1;
	while (used <= more && more < 4 && used < text->size() && (byte(used) & 0xC0) == 0x80) {
		character = character << 6 | (byte(used++) & 0x3F);
	}
	const bool whole = more < 4 && used == more + 1 && lead < 0xF8;
	text->remove_prefix(whole ? used : 1);
	return whole && character < 0x110000 ? character : kUnknown;
}

constexpr bool isHighSurrogate(char32_t c) { return c >= 0xD800 && c < 0xDC00; }
constexpr bool isLowSurrogate(char32_t c) { return c >= 0xDC00 && c < 0xE000; }

std::string utf16ToUtf8(std::string_view bytes, bool big) {
	std::string text;
	const auto unit = [&](size_t at) {
		const auto first = static_cast<unsigned char>(bytes[at]), second = static_cast<unsigned char>(bytes[at + 1]);
		return static_cast<char32_t>(big ? first << 8 | second : second << 8 | first);
	};
	for (size_t at = 0; at + 1 < bytes.size(); at += 2) {
		char32_t character = unit(at);
		if (isHighSurrogate(character) && at + 3 < bytes.size() && isLowSurrogate(unit(at + 2))) {
			character = 0x10000 + ((character & 0x3FF) << 10) + (unit(at + 2) & 0x3FF);
			at += 2;
		}
		appendUtf8(&text, character);
	}
	return text;
}

std::string utf8ToUtf16(std::string_view text, bool big) {
	std::string bytes;
	const auto append = [&](char32_t unit) {
		const char high = static_cast<char>(unit >> 8 & 0xFF), low = static_cast<char>(unit & 0xFF);
		bytes += big ? high : low;
		bytes += big ? low : high;
	};
	while (!text.empty()) {
		const char32_t character = takeUtf8(&text);
		if (character >= 0x10000) append(0xD7C0 + (character >> 10));
		append(character >= 0x10000 ? 0xDC00 | (character & 0x3FF) : character);
	}
	return bytes;
}

struct Mark {
	std::string_view bytes;
	Encoding encoding;
};
constexpr Mark kMarks[] = {
    {"\xEF\xBB\xBF", Encoding::utf8}, {"\xFF\xFE", Encoding::utf16Little}, {"\xFE\xFF", Encoding::utf16Big}};

} // namespace

Contents decode(std::string bytes) {
	for (const Mark& mark : kMarks) {
		if (bytes.compare(0, mark.bytes.size(), mark.bytes) != 0) continue;
		bytes.erase(0, mark.bytes.size());
		if (mark.encoding == Encoding::utf8) return {std::move(bytes), mark.encoding};
		return {utf16ToUtf8(bytes, mark.encoding == Encoding::utf16Big), mark.encoding};
	}
	return {std::move(bytes), Encoding::bytes};
}

std::string encode(const Contents& contents) {
	for (const Mark& mark : kMarks) {
		if (mark.encoding != contents.encoding) continue;
		const bool utf8 = mark.encoding == Encoding::utf8;
		return std::string(mark.bytes) +
		       (utf8 ? contents.text : utf8ToUtf16(contents.text, mark.encoding == Encoding::utf16Big));
	}
	return contents.text;
}

std::string fromHost(std::string_view text, Encoding encoding) {
	if (encoding == Encoding::bytes) return std::string(text);
	std::string out;
	for (const char byte : text) appendUtf8(&out, fromWestern(byte));
	return out;
}

std::string toHost(std::string_view text, Encoding encoding) {
	if (encoding == Encoding::bytes) return std::string(text);
	std::string out;
	while (!text.empty()) out += toWestern(takeUtf8(&text));
	return out;
}

bool findValue(std::string_view text, std::string_view section, std::string_view key, std::string_view* value) {
	const Place place = findPlace(text, section, key);
	*value = place.value.substr(0, place.value.find('\0')); // no host's text goes beyond it
	return place.hasValue;
}

bool apply(const Change& change, Contents* contents) {
	std::string& text = contents->text;
	const auto inFile = [contents](const char* host) { return fromHost(trimStart(host), contents->encoding); };
	const std::string section = inFile(change.section), key = change.key ? inFile(change.key) : std::string();
	const Place place = findPlace(text, section, key);
	if (!change.key || !change.value) {
		const bool there = change.key ? place.hasKey : place.hasSection;
		if (there && change.key) text.erase(place.line, place.next - place.line);
		if (there && !change.key) text.erase(place.header, place.stop - place.header);
		return there;
	}
	const std::string value = inFile(change.value);
	if (place.hasValue && place.value == trim(value)) return false;
	const std::string end = lineEnd(text);
	const std::string line = (place.hasKey ? std::string(place.name) : key) + '=' + value + end;
	if (place.hasKey) {
		text.replace(place.line, place.next - place.line, line);
		return true;
	}
	size_t at = place.hasSection ? place.insert : text.size();
	if (at > 0 && at == text.size() && text.back() != '\n' && text.back() != '\r') {
		text += end;
		at = text.size();
	}
	text.insert(at, place.hasSection ? line : '[' + section + ']' + end + line);
	return true;
}

} // namespace platform::profile_text
