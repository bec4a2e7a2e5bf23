// The search for a module's record beside std::search, memmem and a loop over the positions, for
// the four bytes of its magic: in memory, over 32 MiB with the record at the end, and as
// RetrieveDMInfo of such a file beside reading it whole and std::search. All take turns in one
// run; printed are medians in GB/s and how many times as fast ours is.
#include "qor/plugins/dynamic_module.h"
#include "qor/plugins/module_record_internal.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

constexpr size_t kSize = plugins::kMaximumModuleSize;
constexpr size_t kRecord = kSize - plugins::kModuleRecordSize - 16;
constexpr int kRounds = 31;
constexpr unsigned char kMagic[] = {0xC0, 0xB1, 0xAA, 0x78};

/// `other` yields the bytes in front of the record.
Bytes moduleFile(const std::function<unsigned char()>& other) {
	Bytes file(kSize);
	std::generate(file.begin(), file.end(), other);
	const plugins::ModuleRecordHead head = {plugins::kModuleRecordMagic, kRecord, plugins::kModuleInformationSize, 0};
	std::memcpy(file.data() + kRecord, &head, sizeof head);
	return file;
}

bool isRecord(const unsigned char* at, const unsigned char* start) {
	return plugins::isModuleRecord(at, static_cast<uint32_t>(at - start));
}

/// Goes on behind magics that begin no record.
template <class Search>
size_t firstRecord(const Bytes& file, Search search) {
	const unsigned char* end = file.data() + kSize;
	for (const unsigned char* at = file.data(); (at = search(at, end)) != end; ++at)
		if (isRecord(at, file.data())) return static_cast<size_t>(at - file.data());
	return kSize;
}

const unsigned char* standardSearch(const unsigned char* at, const unsigned char* end) {
	return std::search(at, end, std::begin(kMagic), std::end(kMagic));
}

const unsigned char* memorySearch(const unsigned char* at, const unsigned char* end) {
	const void* found = memmem(at, static_cast<size_t>(end - at), kMagic, sizeof kMagic);
	return found ? static_cast<const unsigned char*>(found) : end;
}

size_t loop(const Bytes& file) {
	for (size_t at = 0; at + plugins::kModuleRecordTail < kSize; ++at)
		if (plugins::isModuleRecord(file.data() + at, static_cast<uint32_t>(at))) return at;
	return kSize;
}

struct Contender {
	const char* name;
	std::function<size_t()> find;
	std::vector<double> rates; // GB/s
};

void compare(const char* title, std::vector<Contender> contenders) {
	for (int round = 0; round < kRounds; ++round) {
		for (auto& contender : contenders) {
			const auto start = std::chrono::steady_clock::now();
			const size_t found = contender.find();
			const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - start;
			if (found != kRecord) std::printf("%s: found %zu\n", contender.name, found);
			contender.rates.push_back(static_cast<double>(kSize) / time.count());
		}
	}
	std::printf("%s\n", title);
	const auto median = [](std::vector<double>& rates) {
		std::nth_element(rates.begin(), rates.begin() + kRounds / 2, rates.end());
		return rates[kRounds / 2];
	};
	const double ours = median(contenders.front().rates);
	for (auto& contender : contenders) {
		const double rate = median(contender.rates);
		std::printf("  %-24s %7.2f GB/s  %6.2f\n", contender.name, rate, ours / rate);
	}
}

void compareInMemory(const char* title, const Bytes& file) {
	compare(title,
	    {{"ours", [&] { return plugins::findModuleRecord(file.data(), kSize, 0); }, {}},
	        {"std::search", [&] { return firstRecord(file, standardSearch); }, {}},
	        {"memmem", [&] { return firstRecord(file, memorySearch); }, {}}, {"loop", [&] { return loop(file); }, {}}});
}

void compareFiles(const Bytes& file) {
	const std::string path = (std::filesystem::temp_directory_path() / "qor_module_record_bench").string();
	std::ofstream(path, std::ios::binary)
	    .write(reinterpret_cast<const char*>(file.data()), static_cast<std::streamsize>(file.size()));
	CqorDynamicModule module;
	module.SetFilePath(path.c_str());
	compare("file in the system's cache, code-like bytes",
	    {{"RetrieveDMInfo", [&] { return module.RetrieveDMInfo() == 0 ? kRecord : kSize; }, {}},
	        {"whole, std::search",
	            [&] {
		            Bytes bytes(kSize);
		            std::ifstream(path, std::ios::binary)
		                .read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(kSize));
		            return firstRecord(bytes, standardSearch);
	            },
	            {}}});
	std::filesystem::remove(path);
}

} // namespace

int main() {
	std::mt19937 random(1);
	// As in machine code: about one byte in thirty is the magic's first.
	static constexpr unsigned char usual[] = {0x48, 0x8B, 0x89, 0x00, 0x0F, 0xC0, 0xFF, 0x24};
	const auto codeLike = [&]() -> unsigned char {
		const auto word = random();
		return word & 0x300 ? static_cast<unsigned char>(word) : usual[(word >> 16) & 7];
	};
	const Bytes code = moduleFile(codeLike);
	compareInMemory("in memory, code-like bytes", code);
	compareInMemory("in memory, zeros", moduleFile([] { return static_cast<unsigned char>(0); }));
	int position = 0;
	compareInMemory("in memory, half magics (the worst case)", moduleFile([&] { return kMagic[position++ % 2]; }));
	compareFiles(code);
}
