// Puts an information record (docs/formats/module_record.md) at the end of a finished library
// file, in place of one it put there before, or shows the record of a file.
//
// The file is replaced in one step. What the loaders of both systems read is not touched.
#include "qor/plugins/module_record_internal.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <locale>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;

constexpr size_t kAlignment = 4;
/// Zeros behind record and extra data: readers want more than 12 bytes there.
constexpr size_t kPadding = 16;
/// Code units, so that the text always ends with a zero.
constexpr size_t kMaximumText = plugins::kModuleInformationSize / sizeof(char16_t) - 1;

struct Options {
	std::string configuration, platform, characterSet, text, textFile, extra, library;
	bool show = false;
};

const std::map<std::string, std::string Options::*> kValues = {{"--configuration", &Options::configuration},
    {"--platform", &Options::platform}, {"--character-set", &Options::characterSet}, {"--text", &Options::text},
    {"--text-file", &Options::textFile}, {"--extra", &Options::extra}};

/// A mistake in the arguments.
struct UsageError : std::runtime_error {
	using runtime_error::runtime_error;
};

Options readArguments(int count, char** arguments) {
	Options options;
	for (int i = 1; i < count; ++i) {
		const std::string argument = arguments[i];
		const auto value = kValues.find(argument);
		if (argument == "--show") {
			options.show = true;
		} else if (value != kValues.end()) {
			if (++i == count) throw UsageError(argument + " without a value");
			options.*(value->second) = arguments[i];
		} else if (argument.starts_with("--")) {
			throw UsageError("unknown option " + argument);
		} else {
			if (!options.library.empty()) throw UsageError("more than one library");
			options.library = argument;
		}
	}
	if (options.library.empty()) throw UsageError("no library given");
	return options;
}

using Utf = std::codecvt<char16_t, char8_t, std::mbstate_t>;

std::u16string toUtf16(std::string_view text) {
	const std::u8string source(text.begin(), text.end());
	std::u16string units(source.size(), u'\0');
	std::mbstate_t state = {};
	const char8_t* read = nullptr;
	char16_t* written = nullptr;
	const auto result = std::use_facet<Utf>(std::locale::classic())
	                        .in(state, source.data(), source.data() + source.size(), read, units.data(),
	                            units.data() + units.size(), written);
	if (result != std::codecvt_base::ok || read != source.data() + source.size())
		throw UsageError("the text is not UTF-8 (a file of --text-file can be, where arguments cannot)");
	units.resize(static_cast<size_t>(written - units.data()));
	return units;
}

std::string toUtf8(std::u16string_view units) {
	std::u8string text(units.size() * 3, u8'\0');
	std::mbstate_t state = {};
	const char16_t* read = nullptr;
	char8_t* written = nullptr;
	std::use_facet<Utf>(std::locale::classic())
	    .out(state, units.data(), units.data() + units.size(), read, text.data(), text.data() + text.size(), written);
	return {text.data(), written};
}

Bytes readFile(const fs::path& path) {
	const auto size = fs::file_size(path);
	if (size > plugins::kMaximumModuleSize) throw std::runtime_error(path.string() + " is larger than 32 MiB");
	Bytes bytes(static_cast<size_t>(size));
	std::ifstream in(path, std::ios::binary);
	if (!in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size)))
		throw std::runtime_error(path.string() + " cannot be read");
	return bytes;
}

/// The tags stand first: of each kind a reader heeds the first it meets.
std::u16string informationText(const Options& options) {
	std::string text;
	const auto add = [&text](const std::string& part) { text += (text.empty() || part.empty() ? "" : " ") + part; };
	const auto tag = [&](const char* name, const std::string& value) {
		if (value.find_first_of("()") != value.npos) throw UsageError("a parenthesis in \"" + value + '"');
		if (!value.empty()) add(name + ('(' + value + ')'));
	};
	tag("CFG", options.configuration);
	tag("PL", options.platform);
	tag("CS", options.characterSet);
	add(options.text);
	if (!options.textFile.empty()) {
		const Bytes more = readFile(options.textFile);
		add({more.begin(), more.end()});
	}
	auto units = toUtf16(text);
	if (units.size() > kMaximumText)
		throw UsageError(
		    "the text has " + std::to_string(units.size()) + " code units, more than " + std::to_string(kMaximumText));
	return units;
}

/// @return where the record of a file begins, or its size.
size_t findRecord(const Bytes& file) {
	const size_t reach = plugins::moduleRecordReach(file.size());
	const size_t at = plugins::findModuleRecord(file.data(), reach, 0);
	return at < reach ? at : file.size();
}

plugins::ModuleRecordHead headAt(const Bytes& file, size_t offset) {
	plugins::ModuleRecordHead head;
	std::memcpy(&head, file.data() + offset, sizeof head);
	return head;
}

/// Cuts off the record that an earlier run put at the end.
void removeRecord(Bytes& file) {
	const size_t at = findRecord(file);
	if (at == file.size()) return;
	const uint64_t end = at + plugins::kModuleRecordSize + uint64_t{headAt(file, at).extraLength} + kPadding;
	if (end != file.size()) throw std::runtime_error("the library holds a record that does not stand at its end");
	file.resize(at);
}

void addRecord(Bytes& file, const std::u16string& text, const Bytes& extra) {
	file.resize((file.size() + kAlignment - 1) / kAlignment * kAlignment);
	const size_t at = file.size();
	const size_t whole = plugins::kModuleRecordSize + extra.size() + kPadding;
	if (at + whole > plugins::kMaximumModuleSize) throw std::runtime_error("the library would be larger than 32 MiB");
	file.resize(at + whole);
	const plugins::ModuleRecordHead head = {plugins::kModuleRecordMagic, static_cast<uint32_t>(at),
	    plugins::kModuleInformationSize, static_cast<uint32_t>(extra.size())};
	auto* out = file.data() + at;
	std::memcpy(out, &head, sizeof head);
	const auto* units = reinterpret_cast<const unsigned char*>(text.data());
	std::copy(units, units + text.size() * sizeof(char16_t), out + sizeof head);
	std::copy(extra.begin(), extra.end(), out + plugins::kModuleRecordSize);
	if (findRecord(file) != at)
		throw std::runtime_error("the library holds bytes that readers would take for the record");
}

/// Removes a file that was not given its final name.
struct Temporary {
	fs::path path;
	~Temporary() {
		std::error_code ignored;
		fs::remove(path, ignored);
	}
};

void replaceFile(const fs::path& path, const Bytes& bytes) {
	const fs::path target = fs::canonical(path); // a link stays one
	const Temporary fresh{fs::path(target) += ".qor_embed"};
	std::ofstream out(fresh.path, std::ios::binary | std::ios::trunc);
	out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
	out.close();
	if (!out) throw std::runtime_error(fresh.path.string() + " cannot be written");
	fs::permissions(fresh.path, fs::status(target).permissions());
	fs::rename(fresh.path, target);
}

void embed(const Options& options) {
	const auto text = informationText(options);
	const Bytes extra = options.extra.empty() ? Bytes() : readFile(options.extra);
	Bytes file = readFile(options.library);
	removeRecord(file);
	addRecord(file, text, extra);
	replaceFile(options.library, file);
}

void show(const fs::path& path) {
	const Bytes file = readFile(path);
	const size_t at = findRecord(file);
	if (at == file.size()) throw std::runtime_error(path.string() + " has no record");
	std::array<char16_t, plugins::kModuleInformationSize / sizeof(char16_t)> units;
	std::memcpy(units.data(), file.data() + at + sizeof(plugins::ModuleRecordHead), sizeof units);
	const std::u16string_view text(units.data(), units.size());
	std::cout << "offset " << at << ", extra data " << headAt(file, at).extraLength << " bytes\n"
	          << toUtf8(text.substr(0, text.find(u'\0'))) << '\n';
}

constexpr const char* kUsage = "usage: qor_embed [--configuration NAME] [--platform NAME] [--character-set NAME]\n"
                               "                 [--text TEXT] [--text-file FILE] [--extra FILE] LIBRARY\n"
                               "       qor_embed --show LIBRARY\n";

} // namespace

int main(int count, char** arguments) {
	try {
		const Options options = readArguments(count, arguments);
		options.show ? show(options.library) : embed(options);
		return 0;
	} catch (const UsageError& error) {
		std::cerr << "qor_embed: " << error.what() << '\n' << kUsage;
		return 2;
	} catch (const std::exception& error) {
		std::cerr << "qor_embed: " << error.what() << '\n';
		return 1;
	}
}
