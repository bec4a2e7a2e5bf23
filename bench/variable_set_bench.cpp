// Lookups of all identifiers of a set, in an order of their own, by the class, by the walk
// over the plain block, and by the maps from text that a user would pick instead. And what
// building and merging sets of 10,000 variables costs. All take turns in one run; printed are
// medians and ratios.
#include <qor/data/variable_set.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

constexpr int kRounds = 31;

/// Keeps the compiler from dropping the work.
const void* volatile sink;

std::string name(int i) {
	char text[32];
	std::snprintf(text, sizeof text, "rig.channel%05d.force", i);
	return text;
}

double nanoseconds(const std::function<void()>& work) {
	const auto start = std::chrono::steady_clock::now();
	work();
	const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - start;
	return time.count();
}

double median(std::vector<double>& times) {
	std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2), times.end());
	return times[times.size() / 2];
}

void fill(CqorDVar_DataSet& schema, int count) {
	schema.Alloc("bench");
	for (int i = 0; i < count; ++i) schema.AddVar(name(i).c_str(), "", kVariableFloat32, 1, 0, 0, "N", "%.1f");
}

void compareLookups(int count) {
	CqorDVar_DataSet schema;
	fill(schema, count);
	CqorDVar_ValueSet values;
	values.AllocFromDataSet(&schema, "bench");
	std::unordered_map<std::string, qorDVar_VALUE*> hashed;
	std::map<std::string, qorDVar_VALUE*> sorted;
	std::vector<std::string> names;
	for (int i = 0; i < count; ++i) {
		hashed[name(i)] = sorted[name(i)] = values.GetByIndex(i);
		names.push_back(name(i));
	}
	std::shuffle(names.begin(), names.end(), std::mt19937(7));
	const auto lookups = std::max(count, 1000);
	const auto perLookup = [&](const auto& find) {
		return nanoseconds([&] {
			for (int i = 0; i < lookups; i += count)
				for (const std::string& id : names) sink = find(id.c_str());
		}) / lookups;
	};
	std::vector<double> byClass, byWalk, byHash, byTree;
	for (int round = 0; round < kRounds; ++round) {
		byClass.push_back(perLookup([&](const char* id) { return values.GetByID(id); }));
		if (round % 3 == 0) {
			auto* block = values.GetBlock();
			byWalk.push_back(perLookup([&](const char* id) { return qorDVar_ValueSetGetVarPtrByID(block, id); }));
		}
		byHash.push_back(perLookup([&](const char* id) { return hashed.find(id)->second; }));
		byTree.push_back(perLookup([&](const char* id) { return sorted.find(id)->second; }));
	}
	const double a = median(byClass), w = median(byWalk), h = median(byHash), t = median(byTree);
	std::printf("%9d %10.1f %10.1f %14.1f %10.1f %16.2f %9.2f %17.2f\n", count, a, w, h, t, a / h, a / t, w / h);
}

void addPlain(int count) {
	qorDVar_DATASET* set = qorDVar_DataSetAlloc("bench");
	for (int i = 0; i < count; ++i)
		qorDVar_DataSetAddVar(&set, name(i).c_str(), "", kVariableFloat32, 1, 0, 0, "N", "%.1f");
	qorDVar_DataSetFree(set);
}

void addToMap(int count) {
	std::vector<qorDVar_DATATYPE> definitions;
	std::unordered_map<std::string, size_t> places;
	for (int i = 0; i < count; ++i)
		if (places.emplace(name(i), definitions.size()).second) definitions.emplace_back();
	sink = definitions.data();
}

void mergeMaps(std::unordered_map<std::string, float>& to, const std::unordered_map<std::string, float>& from) {
	for (const auto& [id, value] : from) {
		const auto found = to.find(id);
		if (found != to.end()) found->second = value;
	}
}

void compareBuilding(int count) {
	CqorDVar_DataSet schema;
	fill(schema, count);
	CqorDVar_ValueSet values, sub;
	values.AllocFromDataSet(&schema, "");
	sub.AllocFromDataSet(&schema, "");
	std::unordered_map<std::string, float> to, from;
	for (int i = 0; i < count; ++i) to[name(i)] = from[name(i)] = static_cast<float>(i);
	const struct {
		const char* text;
		std::function<void()> work;
	} rows[] = {
	    {"add, std::unordered_map + vector", [&] { addToMap(count); }},
	    {"add, CqorDVar_DataSet",
	        [&] {
		        CqorDVar_DataSet fresh;
		        fill(fresh, count);
	        }},
	    {"add, plain block", [&] { addPlain(count); }},
	    {"merge, std::unordered_map", [&] { mergeMaps(to, from); }},
	    {"merge, UpdateFromSubSet", [&] { qorDVar_ValueSet_UpdateFromSubSet(values.GetBlock(), sub.GetBlock()); }},
	    {"make and index a value set", [&] { values.AllocFromDataSet(&schema, ""); }},
	};
	std::vector<double> times[std::size(rows)];
	for (int round = 0; round < 7; ++round)
		for (size_t i = 0; i < std::size(rows); ++i) times[i].push_back(nanoseconds(rows[i].work) * 1e-6);
	std::printf("\n%-34s %10s   (%d variables)\n", "whole operation", "ms", count);
	double beside = 1;
	for (size_t i = 0; i < std::size(rows); ++i) {
		const double time = median(times[i]);
		if (i == 0 || i == 3) beside = time;
		std::printf("%-34s %10.2f   ratio %.2f\n", rows[i].text, time, time / beside);
	}
}

} // namespace

int main() {
	std::printf("%9s %10s %10s %14s %10s %16s %9s %17s\n", "variables", "class ns", "walk ns", "unordered ns", "map ns",
	    "class/unordered", "class/map", "walk/unordered");
	for (const int count : {10, 100, 1000, 10000}) compareLookups(count);
	compareBuilding(10000);
	return 0;
}
