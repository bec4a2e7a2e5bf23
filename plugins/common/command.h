#pragma once

#include <qor/plugins/sio_plugin.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

/// Command lines and reply lines of a plug-in.
namespace plugin {

/// The status of an operation or a setting, as the host receives it.
enum Status {
	kOk = 0,
	kWrongState = 1, // not in this state of the device
	kUnknown = 2,    // no such operation, key or feature, or not to be set
	kBadValue = 3,   // a value out of its range
	kNoMemory = 4,
	kRefused = 5, // a fault asked for
	kDamaged = 6, // the device's data cannot be used; the feature "Problem" says why
};

/// A command line: "<operation>,<argument>", "get,<key>" or "set,<key>,<value>".
/// The value is the rest of the line as it stands (a region has several numbers), without
/// the one pair of quotes the library puts around texts: it does not escape them.
struct Command {
	std::string operation;
	std::string key; // of get and set; otherwise empty
	std::string value;

	explicit Command(std::string_view line) {
		operation = take(line);
		if (operation == "get" || operation == "set") key = take(line);
		if (line.size() >= 2 && line.front() == '"' && line.back() == '"') line = line.substr(1, line.size() - 2);
		value = line;
	}

private:
	static std::string_view take(std::string_view& line) {
		const auto comma = line.find(',');
		const auto item = line.substr(0, comma);
		line.remove_prefix(comma == std::string_view::npos ? line.size() : comma + 1);
		return item;
	}
};

/// A text as an item of a reply: in quotes, with quotes and backslashes escaped, because the
/// library decodes escapes in replies.
inline std::string quoted(std::string_view text) {
	std::string result = "\"";
	for (const char c : text) {
		if (c == '"' || c == '\\') result += '\\';
		result += c;
	}
	return result + '"';
}

/// Numbers as text and back, the same in every locale.
inline std::string decimal(double value) {
	char text[400];
	const auto end = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, 6).ptr;
	return {text, end};
}

template <class Number>
bool parseNumber(std::string_view text, Number* out) {
	while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
	while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
	Number value{};
	const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
	if (result.ec != std::errc() || result.ptr != text.data() + text.size()) return false;
	*out = value;
	return true;
}

/// Writes "<key>,<value>" into the reply buffer of a command; what does not fit is refused.
/// @return the answer of the object function.
inline int writeReply(char* reply, std::string_view key, std::string_view value) {
	if (key.size() + value.size() + 2 > QOR_SIO_REPLY_SIZE) return QOR_SIO_FAILURE;
	std::memcpy(reply, key.data(), key.size());
	reply[key.size()] = ',';
	std::memcpy(reply + key.size() + 1, value.data(), value.size());
	reply[key.size() + 1 + value.size()] = 0;
	return QOR_SIO_OK;
}

} // namespace plugin
