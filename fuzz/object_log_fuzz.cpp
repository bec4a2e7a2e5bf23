#include "qor/core/object.h"
#include "qor/core/runtime.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

// An object's line is formatted twice. Type, subtype and text come from files and from the
// wire; whatever they hold, the line is the one composed here without any printf.

namespace {

std::string line;

std::string takeText(const uint8_t*& data, size_t& size, size_t most) {
	std::string text;
	while (size > 0 && *data != 0 && text.size() < most) text += static_cast<char>(*data++), --size;
	if (size > 0) ++data, --size;
	return text;
}

std::string padded(std::string text) {
	if (text.size() < 20) text.resize(20, ' ');
	return text;
}

std::string collapsed(const std::string& text) {
	std::string result;
	for (size_t i = 0; i < text.size(); ++i) {
		if (text[i] == '%' && i + 1 < text.size() && text[i + 1] == '%') ++i;
		result += text[i];
	}
	return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
	if (size == 0) return 0;
	const int level = *data % 6;
	const size_t repeat = *data >= 250 ? 3000 : 1; // over-long texts from short inputs
	++data, --size;
	qor object;
	const std::string type = takeText(data, size, 31), subtype = takeText(data, size, 31);
	const std::string part = takeText(data, size, size);
	std::string text;
	for (size_t i = 0; i < repeat; ++i) text += part;
	object.settype("%s", type.c_str());
	object.setsubtype("%s", subtype.c_str());

	static const int started = appRawInit("", 1e300); // the time column stays "0.00"
	(void)started;
	appLogSetFunc([](const char* written) { return line = written, true; });
	object.log(level, "%s", text.c_str());
	appLogSetFunc(nullptr);

	static const char* const prefixes[] = {"        ", "BEGIN   ", "END     ", "[ERROR] ", "[WARNING]", "        "};
	std::string expected = prefixes[level] + ("[" + padded(type));
	if (!subtype.empty()) expected += ":" + padded(subtype);
	expected = (expected + "] > " + text.substr(0, 16383)).substr(0, 16383);
	expected = ("        0.00 " + collapsed(expected)).substr(0, 8191);
	if (line == expected) return 0;
	std::fprintf(stderr, "expected: %s\nwritten:  %s\n", expected.c_str(), line.c_str());
	std::abort();
}
