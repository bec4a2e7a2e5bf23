// What it takes to find the sequences among 100,000 files, beside what a program would write
// with the standard library: a directory iterator, a regular expression, a map and a sort.
// Rounds of both are interleaved; the table shows medians in microseconds and their ratio.

#include <qor/storage/file_sequence.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <regex>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr int kFiles = 100000;
constexpr size_t kFirst = CqorFileSeq::kMaximumFiles;

/// Keeps the compiler from dropping the work.
volatile size_t sink;

void check(bool holds, const char* what) {
	if (holds) return;
	std::fprintf(stderr, "%s\n", what);
	std::exit(1);
}

class Folder {
public:
	explicit Folder(const char* name) {
		const fs::path memory = "/dev/shm";
		mPath = (fs::exists(memory) ? memory : fs::temp_directory_path()) /
		        ("qor_bench_" + std::string(name) + std::to_string(std::random_device{}()));
		fs::create_directories(mPath);
	}
	~Folder() {
		std::error_code ignored;
		fs::remove_all(mPath, ignored);
	}
	Folder(const Folder&) = delete;
	Folder& operator=(const Folder&) = delete;
	void write(const std::string& name) const { std::ofstream(mPath / name) << "x"; }
	std::string path() const { return mPath.string(); }

private:
	fs::path mPath;
};

struct Item {
	std::string name, digits;
	uintmax_t size;
};
using Groups = std::map<std::string, std::vector<Item>>;

/// The first files by name in groups of base names; `only` may name the one that is wanted.
Groups standardGroups(const std::string& folder, const std::string& only) {
	static const std::regex numbered("(.*?)([0-9]*)\\.raw", std::regex::icase | std::regex::optimize);
	std::vector<std::string> names;
	for (const auto& entry : fs::directory_iterator(folder)) {
		if (entry.path().extension() == ".raw" && entry.is_regular_file())
			names.push_back(entry.path().filename().string());
	}
	const size_t kept = std::min(names.size(), kFirst);
	std::partial_sort(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(kept), names.end());
	Groups groups;
	for (size_t i = 0; i < kept; ++i) {
		std::smatch parts;
		if (!std::regex_match(names[i], parts, numbered) || (!only.empty() && parts[1] != only)) continue;
		groups[parts[1]].push_back({names[i], parts[2], fs::file_size(fs::path(folder) / names[i])});
	}
	return groups;
}

/// The same of every file there is: what a program without a limit would write.
Groups standardGroupsOfAll(const std::string& folder) {
	static const std::regex numbered("(.*?)([0-9]*)\\.raw", std::regex::icase | std::regex::optimize);
	Groups groups;
	for (const auto& entry : fs::directory_iterator(folder)) {
		const auto name = entry.path().filename().string();
		std::smatch parts;
		if (!entry.is_regular_file() || !std::regex_match(name, parts, numbered)) continue;
		groups[parts[1]].push_back({name, parts[2], entry.file_size()});
	}
	for (auto& group : groups) {
		std::sort(
		    group.second.begin(), group.second.end(), [](const Item& a, const Item& b) { return a.name < b.name; });
	}
	return groups;
}

using Work = std::function<size_t()>;

double microseconds(const Work& work, int repeats) {
	const auto start = std::chrono::steady_clock::now();
	for (int i = 0; i < repeats; ++i) sink = sink + work();
	const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - start;
	return time.count() / repeats;
}

double median(std::vector<double>& times) {
	std::sort(times.begin(), times.end());
	return times[times.size() / 2];
}

void row(const char* name, const char* otherName, int repeats, const Work& ours, const Work& other) {
	check(ours() == other(), name); // the same files on both sides
	std::vector<double> a, b;
	for (int round = 0; round < 9; ++round) {
		a.push_back(microseconds(ours, repeats));
		b.push_back(microseconds(other, repeats));
	}
	const double mine = median(a), theirs = median(b);
	std::printf("%-44s %12.2f   %-34s %12.2f %8.3f\n", name, mine, otherName, theirs, mine / theirs);
	std::fflush(stdout);
}

size_t countOf(const Groups& groups) {
	size_t count = 0;
	for (const auto& group : groups) count += group.second.size();
	return count;
}

size_t listed(const std::string& folder) {
	CqorFileSeqList list;
	check(list.CreateFromFolder(folder.c_str(), "raw", 0) == 0, "the folder cannot be read");
	size_t count = 0;
	for (int i = 0; i < list.GetCount(); ++i) count += static_cast<size_t>(list.Get(i)->GetCount());
	return count;
}

size_t sequenceOf(const std::string& path) {
	CqorFileSeq sequence;
	check(sequence.CreateFromFilePath(path.c_str()) == 0, "the folder cannot be read");
	return static_cast<size_t>(sequence.GetCount());
}

void lookups(const std::string& folder, const char* name, const char* file) {
	CqorFileSeq sequence;
	check(sequence.CreateFromFilePath((folder + "/" + file).c_str()) == 0, "the folder cannot be read");
	std::multimap<uint32_t, const eqorFILESEQ_CITEM*> map;
	for (int i = 0; i < sequence.GetCount(); ++i) map.emplace(sequence.GetItem(i)->mNumber, sequence.GetItem(i));
	const auto ours = [&] {
		size_t sum = 0;
		for (const auto& item : map) sum += sequence.GetItemByIndexNum(item.first)->mNumberText[0];
		return sum;
	};
	const auto other = [&] {
		size_t sum = 0;
		for (const auto& item : map) sum += map.lower_bound(item.first)->second->mNumberText[0];
		return sum;
	};
	row(name, "std::multimap", 100, ours, other);
}

} // namespace

int main() {
	const Folder large("large"), mixed("mixed"), padded("padded"), plain("plain");
	for (int i = 0; i < kFiles; ++i) {
		char name[32];
		std::snprintf(name, sizeof name, "cam%d_%06d.raw", i % 10, i);
		large.write(name);
	}
	for (int i = 0; i < 1024; ++i) {
		mixed.write("measurement_of_the_series_" + std::to_string(i * 7919) + "_1.raw");
		padded.write("frame" + std::to_string(10000 + i) + ".raw");
		plain.write("frame" + std::to_string(i) + ".raw");
	}
	const std::string folder = large.path();
	std::printf("%-44s %12s   %-34s %12s %8s\n", "", "us", "beside", "us", "ratio");
	row(
	    "CreateFromFolder, 1,024 of 100,000 files", "iterator, partial sort, regex, map", 1,
	    [&] { return listed(folder); }, [&] { return countOf(standardGroups(folder, "")); });
	row(
	    "CreateFromFilePath, 1,024 of 100,000 files", "iterator, partial sort, regex", 1,
	    [&] { return sequenceOf(folder + "/cam0_000000.raw"); },
	    [&] { return countOf(standardGroups(folder, "cam0_")); });
	row(
	    "CreateFromFolder, 1,024 sequences", "iterator, regex, map, sort", 20, [&] { return listed(mixed.path()); },
	    [&] { return countOf(standardGroupsOfAll(mixed.path())); });
	row(
	    "CreateFromFilePath, 1,024 files", "iterator, regex, map, sort", 20,
	    [&] { return sequenceOf(plain.path() + "/frame7.raw"); },
	    [&] { return countOf(standardGroupsOfAll(plain.path())); });
	lookups(padded.path(), "GetItemByIndexNum x 1,024, equal digits", "frame10000.raw");
	lookups(plain.path(), "GetItemByIndexNum x 1,024, frame1 ... 1023", "frame0.raw");
	return 0;
}
