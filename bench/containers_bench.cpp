// What a change of a container costs beside the standard one a program would pick instead, each
// behind a call. Rounds of both are interleaved; the table shows medians with the spread of
// the middle half, the ratio of the medians, and how the cost per change grows with the
// number of changes.

#include <qor/base/mem_file.h>
#include <qor/base/persistent_array.h>
#include <qor/base/string_set.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <string>
#include <vector>

namespace {

using Work = void (*)(int changes);

/// Keeps the compiler from dropping the work.
const void* volatile sink;

constexpr char kRecord[] = "0123456789abcdef";
constexpr char kText[] = "a line of twenty-six chars";

// The standard containers are changed through a call, as ours are: what a program gains by having
// them inlined is not what is measured. The compiler does not know where these lead.
void (*volatile appendText)(std::string&) = [](std::string& text) { text.append(kRecord, 16); };
void (*volatile pushNumber)(std::vector<long long>&, long long) = [](auto& array, long long n) { array.push_back(n); };
void (*volatile pushBack)(std::deque<long long>&, long long) = [](auto& array, long long n) { array.push_back(n); };
void (*volatile addLine)(std::vector<std::string>&) = [](auto& set) { set.emplace_back(kText); };

void memFile(int changes) {
	CstMemFile file;
	for (int i = 0; i < changes; ++i) file.Write(kRecord, 16);
	sink = file.GetBuffer();
}
void stdString(int changes) {
	std::string text;
	for (int i = 0; i < changes; ++i) appendText(text);
	sink = text.data();
}
void linearArray(int changes) {
	CstmArray<long long> array;
	for (int i = 0; i < changes; ++i) array.Add(i);
	sink = array.begin();
}
void stdVector(int changes) {
	std::vector<long long> array;
	for (int i = 0; i < changes; ++i) pushNumber(array, i);
	sink = array.data();
}
void persistentArray(int changes) {
	CstmPersistentLinearArray array(sizeof(long long));
	for (int i = 0; i < changes; ++i) *static_cast<long long*>(array.AddItem()) = i;
	sink = array.GetItem(0);
}
void stdDeque(int changes) {
	std::deque<long long> array; // keeps addresses, too
	for (int i = 0; i < changes; ++i) pushBack(array, i);
	sink = &array.front();
}
void stringSet(int changes) {
	CstmCharStringSet set;
	for (int i = 0; i < changes; ++i) set.Add(kText);
	sink = set.GetLine(0);
}
void stdStrings(int changes) {
	std::vector<std::string> set;
	for (int i = 0; i < changes; ++i) addLine(set);
	sink = set.data();
}

struct Summary {
	double median;
	double spread; // of the middle half, as a part of the median
};

Summary summarize(std::vector<double>& times) {
	std::sort(times.begin(), times.end());
	const double median = times[times.size() / 2];
	return {median, (times[times.size() * 3 / 4] - times[times.size() / 4]) / median};
}

/// Nanoseconds per change.
double timed(Work work, int changes) {
	const int repeats = std::max(1, 10000 / changes);
	const auto start = std::chrono::steady_clock::now();
	for (int i = 0; i < repeats; ++i) work(changes);
	const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - start;
	return time.count() / repeats / changes;
}

constexpr struct {
	const char* name;
	const char* otherName;
	Work ours;
	Work other;
} kPairs[] = {
    {"CstMemFile::Write 16 B", "std::string", &memFile, &stdString},
    {"CstmLinearArray::laAdd", "std::vector", &linearArray, &stdVector},
    {"CstmPersistent::AddItem", "std::deque", &persistentArray, &stdDeque},
    {"CstmCharStringSet::Add", "vector<string>", &stringSet, &stdStrings},
};

} // namespace

int main() {
	constexpr int kRounds = 15;
	constexpr std::chrono::seconds kRowBudget(5); // of one row, which has at least 3 rounds
	std::printf("%-24s %9s %12s %7s   %-15s %10s %7s %7s %9s\n", "change", "changes", "ns/change", "spread", "beside",
	    "ns/change", "spread", "ratio", "growth");
	for (const auto& pair : kPairs) {
		double before = 0;
		for (const int changes : {100, 1000, 10000, 100000, 1000000}) {
			std::vector<double> ours, other;
			const auto start = std::chrono::steady_clock::now();
			for (int round = 0; round < kRounds; ++round) {
				if (round >= 3 && std::chrono::steady_clock::now() - start > kRowBudget) break;
				ours.push_back(timed(pair.ours, changes));
				other.push_back(timed(pair.other, changes));
			}
			const auto a = summarize(ours), b = summarize(other);
			std::printf("%-24s %9d %12.1f %6.0f%%   %-15s %10.1f %6.0f%% %7.2f ", pair.name, changes, a.median,
			    a.spread * 100, pair.otherName, b.median, b.spread * 100, a.median / b.median);
			if (before > 0) std::printf("%9.2f", a.median / before);
			std::printf("\n");
			before = a.median;
		}
	}
	return 0;
}
