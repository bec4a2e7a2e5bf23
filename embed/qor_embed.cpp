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
	bool described = false;
	for (int i = 1; i < count; ++i) {
		const std::string argument = arguments[i];
		const auto value = kValues.find(argument);
		if (argument == "--show") {
			options.show = true;
		} else if (value != kValues.end()) {
			if (++i == count) throw UsageError(argument + " without a value");
			options.*(value->second) = arguments[i];
			described = true;
		} else if (argument.starts_with("--")) {
			throw UsageError("unknown option " + argument);
		} else {
			if (!options.library.empty()) throw UsageError("more than one library");
			options.library = argument;
		}
	}
	if (options.library.empty()) throw UsageError("no library given");
	if (options.show && described) throw UsageError("--show stands alone");
	return options;
}

using Utf = std::codecvt<char16_t, char8_t, std::mbstate_t>;

/// Whether UTF-8 holds a surrogate, which the conversion lets pass.
bool hasSurrogate(std::string_view text) {
	for (size_t at = text.find('\xED'); at != text.npos; at = text.find('\xED', at + 1))
		if (at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) >= 0xA0) return true;
	return false;
}

std::u16string toUtf16(std::string_view text) {
	const std::u8string source(text.begin(), text.end());
	std::u16string units(source.size(), u'\0');
	std::mbstate_t state = {};
	const char8_t* read = nullptr;
	char16_t* written = nullptr;
	const auto result = std::use_facet<Utf>(std::locale::classic())
	                        .in(state, source.data(), source.data() + source.size(), read, units.data(),
	                            units.data() + units.size(), written);
	if (result != std::codecvt_base::ok || read != source.data() + source.size() || hasSurrogate(text))
		throw UsageError("the text is not UTF-8 (a file of --text-file can be, where arguments cannot)");
	units.resize(static_cast<size_t>(written - units.data()));
	if (units.find(u'\0') != units.npos)
		throw UsageError("the text holds a zero, where readers would end it (UTF-16 instead of UTF-8?)");
	return units;
}

/// @return the text with U+FFFD for each surrogate that is not one of a pair.
std::u16string wellFormed(std::u16string_view text) {
	std::u16string units(text);
	for (size_t i = 0; i < units.size(); ++i) {
		if ((units[i] & 0xF800) != 0xD800) continue;
		const bool pair = (units[i] & 0xFC00) == 0xD800 && i + 1 < units.size() && (units[i + 1] & 0xFC00) == 0xDC00;
		if (pair)
			++i;
		else
			units[i] = u'\uFFFD';
	}
	return units;
}

std::string toUtf8(std::u16string_view source) {
	const std::u16string units = wellFormed(source);
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

/// A text file's content, without the byte order mark that it begins and the line ends that it ends with.
std::string readText(const fs::path& path) {
	constexpr std::string_view mark = "\xEF\xBB\xBF";
	const Bytes bytes = readFile(path);
	std::string text(bytes.begin(), bytes.end());
	if (text.starts_with(mark)) text.erase(0, mark.size());
	return text.substr(0, text.find_last_not_of("\r\n") + 1);
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
	if (!options.textFile.empty()) add(readText(options.textFile));
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

/// A folder of this run's own beside a file, with room for its new contents. The names that
/// others have taken, for whatever it is, are passed over and left alone.
class Workplace {
public:
	explicit Workplace(const fs::path& target) {
		for (int number = 0; number < kNames; ++number) {
			mFolder = fs::path(target) += ".qor_embed" + std::to_string(number);
			std::error_code error;
			if (fs::create_directory(mFolder, error)) { // only when nothing has that name
				fs::permissions(mFolder, fs::perms::owner_all, error);
				return;
			}
			if (error && error != std::errc::file_exists) throw fs::filesystem_error("no new file", mFolder, error);
		}
		throw std::runtime_error(mFolder.string() + " and all before it are taken");
	}
	~Workplace() {
		std::error_code ignored;
		fs::remove(file(), ignored);
		fs::remove(mFolder, ignored);
	}
	Workplace(const Workplace&) = delete;
	Workplace& operator=(const Workplace&) = delete;
	fs::path file() const { return mFolder / "new"; }

private:
	static constexpr int kNames = 1000;
	fs::path mFolder;
};

void replaceFile(const fs::path& path, const Bytes& bytes) {
	const fs::path target = fs::canonical(path); // a link stays one
	const auto permissions = fs::status(target).permissions();
	if ((permissions & fs::perms::owner_write) == fs::perms::none)
		throw std::runtime_error(target.string() + " is read-only: its owner may not write it");
	const Workplace place(target);
	const fs::path fresh = place.file();
	std::ofstream out(fresh, std::ios::binary);
	out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
	out.close();
	if (!out) throw std::runtime_error(fresh.string() + " cannot be written");
	fs::permissions(fresh, permissions);
	fs::rename(fresh, target);
}

void embed(const Options& options) {
	const auto text = informationText(options);
	const Bytes extra = options.extra.empty() ? Bytes() : readFile(options.extra);
	Bytes file = readFile(options.library);
	if (file.empty()) throw std::runtime_error(options.library + " is empty");
	removeRecord(file);
	addRecord(file, text, extra);
	replaceFile(options.library, file);
}

/// The length of a record's extra data as readers count it.
size_t extraLength(const Bytes& file, size_t at) {
	const size_t length = headAt(file, at).extraLength;
	return length < file.size() - plugins::kModuleRecordTail ? length : 0;
}

void show(const fs::path& path) {
	const Bytes file = readFile(path);
	const size_t at = findRecord(file);
	if (at == file.size()) throw std::runtime_error(path.string() + " has no record");
	std::array<char16_t, plugins::kModuleInformationSize / sizeof(char16_t)> units;
	std::memcpy(units.data(), file.data() + at + sizeof(plugins::ModuleRecordHead), sizeof units);
	const std::u16string_view text(units.data(), units.size());
	std::cout << "offset " << at << ", extra data " << extraLength(file, at) << " bytes\n"
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
