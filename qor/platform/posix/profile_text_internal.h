#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// The text of an initialisation file, as the Windows functions understand it, and what a
/// change does to it. What a caller did not ask to change stays to the byte: comments, blank
/// lines, line ends, characters that hosts cannot name. Everything here throws without memory.
namespace platform::profile_text {

/// How a file tells its characters. The texts of hosts are bytes of the Western code page; a
/// file without a mark holds such bytes, one with a mark is Unicode.
enum class Encoding : uint8_t { bytes, utf8, utf16Little, utf16Big };

struct Contents {
	std::string text; // bytes as they are, or UTF-8; without the mark
	Encoding encoding = Encoding::bytes;
};

Contents decode(std::string bytes);
std::string encode(const Contents& contents);

/// A host's text as it stands in such a file.
std::string fromHost(std::string_view text, Encoding encoding);
/// The reverse; what the code page lacks becomes "?".
std::string toHost(std::string_view text, Encoding encoding);

/// Finds the value of a key. A line without "=" is a key without a value, and hides a later one
/// of that name. @return false without section, key or value.
bool findValue(std::string_view text, std::string_view section, std::string_view key, std::string_view* value);

/// What a writer asks for. A null key removes the section, a null value the key.
struct Change {
	const char* section;
	const char* key;
	const char* value;
};

/// @return false when there is nothing to change.
bool apply(const Change& change, Contents* contents);

} // namespace platform::profile_text
