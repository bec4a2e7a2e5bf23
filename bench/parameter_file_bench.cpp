// CqorBXML beside tinyxml2: the same texts, valid for both, parsed from memory and destroyed
// again, and files of 1 to 100 MB, which should take the same time a byte. Both take turns in
// one run; printed are medians with the spread of the middle half, and the ratio.
#include "qor/data/parameter_file.h"

#include <tinyxml2.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using Make = std::string (*)(std::size_t bytes);

std::string repeat(std::size_t bytes, const std::string& section) {
	std::string text = "<setup>\n";
	text.reserve(bytes + section.size() + 16);
	while (text.size() < bytes) text += section;
	return text + "</setup>";
}

std::string cameras(std::size_t bytes) {
	return repeat(bytes, "<camera ID=\"left\" fps=\"100\" mirror=\"1\" size=\"2048,1536\">\n"
	                     "\t<lens f=\"8.5\" serial=\"A-1201\" />\n"
	                     "\t<pose t=\"1.25,0.5,-3.75\" r=\"0,0,0\">left of the door</pose>\n"
	                     "</camera>\n");
}
std::string small(std::size_t bytes) { return repeat(bytes, "<p v=\"1\" />\n"); }
std::string big(std::size_t bytes) {
	return repeat(bytes, "<table rows=\"1000\">" + std::string(100000, '7') + "</table>\n");
}
std::string parameters(std::size_t bytes) {
	std::string section = "<gains";
	for (int i = 0; i < 200; ++i) section += " channel" + std::to_string(i) + "=\"1.0625\"";
	return repeat(bytes, section + " />\n");
}

void ours(const std::string& text) {
	CqorBXML document;
	document.OpenFromBuffer(text.data(), static_cast<int>(text.size()));
	if (!document.FindSection("setup") || document.mRoot.mContentLength != document.mTextLength) std::abort();
}

void theirs(const std::string& text) {
	tinyxml2::XMLDocument document;
	if (document.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS) std::abort();
}

template <class Action>
double seconds(Action action) {
	const auto start = std::chrono::steady_clock::now();
	action();
	return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

struct Times {
	std::vector<double> all;
	double at(double part) {
		std::sort(all.begin(), all.end());
		return all[static_cast<std::size_t>(part * static_cast<double>(all.size() - 1))];
	}
	void print(std::size_t bytes) {
		const double scale = 1e9 / static_cast<double>(bytes);
		std::printf("  %6.2f [%5.2f-%5.2f]", at(0.5) * scale, at(0.25) * scale, at(0.75) * scale);
	}
};

void compare(const char* name, Make make, std::size_t bytes, int rounds) {
	const auto text = make(bytes);
	Times mine, other;
	ours(text); // memory that this machine never gave out before costs a multiple
	theirs(text);
	for (int i = 0; i < rounds; ++i) {
		mine.all.push_back(seconds([&] { ours(text); }));
		other.all.push_back(seconds([&] { theirs(text); }));
	}
	std::printf("%-24s %5zu KB", name, bytes / 1000);
	mine.print(text.size());
	other.print(text.size());
	std::printf("  %5.2f\n", other.at(0.5) / mine.at(0.5));
}

void scale() {
	std::printf("\nfile size   ns a byte\n");
	for (const std::size_t megabytes : {1, 10, 100}) {
		const auto text = cameras(megabytes * 1000000);
		const char* path = "parameter_file_bench.prm";
		std::FILE* file = std::fopen(path, "wb");
		if (!file || std::fwrite(text.data(), 1, text.size(), file) != text.size()) std::abort();
		std::fclose(file);
		Times times;
		for (int i = 0; i < 7; ++i)
			times.all.push_back(seconds([&] {
				CqorBXML document;
				if (document.Open(path) != 0) std::abort();
			}));
		std::remove(path);
		std::printf("%6zu MB", megabytes);
		times.print(text.size());
		std::printf("\n");
	}
}

void lookUp() {
	const auto text = small(12000000);
	CqorBXML document;
	document.OpenFromBuffer(text.data(), static_cast<int>(text.size()));
	const auto* setup = document.FindSection("setup");
	const int count = setup->FindSectionCountByType("p");
	long long sum = 0;
	const double loop = seconds([&] {
		for (int i = 0; i < count; ++i) sum += setup->GetSectionByType("p", i)->GetIntVar("v", 0);
	});
	std::printf("\n%d sections by index with a value each: %.0f ns a section\n", count, loop / count * 1e9);
	if (sum != count) std::abort();
}

} // namespace

int main() {
	std::printf("parse and destroy                    CqorBXML, ns a byte    tinyxml2, ns a byte    tinyxml2 / ours\n");
	compare("cameras", cameras, 10000, 2001);
	compare("cameras", cameras, 1000000, 41);
	compare("cameras", cameras, 20000000, 7);
	compare("many small sections", small, 1000000, 41);
	compare("many small sections", small, 20000000, 7);
	compare("few big sections", big, 20000000, 21);
	compare("sections of 200 values", parameters, 20000000, 7);
	scale();
	lookUp();
}
