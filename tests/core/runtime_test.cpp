#include "core_test.h"

#include <atomic>
#include <regex>
#include <stdexcept>
#include <thread>

namespace {

namespace fs = std::filesystem;
using test_support::readFile;
using test_support::writeFile;

double clockBefore = 0;
/// A line logged before anything was started.
const std::string earlyLine = [] {
	std::string text;
	appLogSetFunc([&](const char* line) { return text = line, true; });
	clockBefore = appGetTime();
	appmsg("early %d", 7);
	appLogSetFunc(nullptr);
	return text;
}();

size_t count(const std::string& text, const std::string& part) {
	size_t found = 0;
	for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) ++found;
	return found;
}

/// In a folder of its own.
class Runtime : public testing::Test {
protected:
	Runtime() { fs::current_path(mFolder.path()); }
	~Runtime() override {
		appUinit();
		fs::current_path(mBefore);
	}
	const fs::path mBefore = fs::current_path();
	test_support::TempFolder mFolder;
	core_test::LogLines mLog;
};

TEST_F(Runtime, DeliversBeforeStartWithRawCounter) {
	EXPECT_EQ(earlyLine.substr(earlyLine.find('.') + 4), "early 7");
	EXPECT_NEAR(std::atof(earlyLine.c_str()), clockBefore * 1000, 1e12); // at most a second later
}

TEST_F(Runtime, LogFileName) {
	static constexpr const char* cases[][2] = {{"a.b.cfg", "a.b.LOG"}, {"logs.d/app", "logs.d/app.LOG"},
	    {"logs.d\\other.cfg", "logs.d/other.LOG"}, {"", ".LOG"}, {"set.cfg", "chosen.txt"}};
	writeFile("set.cfg", "[MAIN]\r\nlog_file=chosen.txt\r\n");
	fs::create_directory("logs.d");
	for (const auto& [config, log] : cases) {
		EXPECT_EQ(appInit(config), 1);
		EXPECT_STREQ(appGetConfigFile(), config);
		appUinit();
		EXPECT_EQ(count(readFile(log), "[ System Started     "), 1u) << config;
	}
	appInit(nullptr);
	EXPECT_STREQ(appGetConfigFile(), "");
	appUinit();
	appRawInit(nullptr, 0);
	EXPECT_TRUE(fs::exists("output.log"));
}

TEST_F(Runtime, NoLogUnderAnotherNameWhereTheNameIsTooLong) {
	std::string settings = "[MAIN]\nlog_file=";
	for (int i = 0; i < 253; ++i) settings += "./";
	const std::pair<std::string, const char*> cases[] = {
	    {"a.cfg", "513.log"}, {"b.cfg", "512.lo"}, {std::string(4096, 'c'), ""}};
	for (const auto& [path, name] : cases) {
		if (*name) writeFile(path, settings + name + "\n");
		appInit(path.c_str());
		const bool refused = mLog.lines.back().find("[ERROR]") != std::string::npos;
		EXPECT_EQ(refused, path != "b.cfg");
		appUinit();
	}
	EXPECT_LE(std::distance(fs::directory_iterator("."), {}), 3); // the settings, and the log of 512 characters
}

TEST_F(Runtime, WhatACallbackThrowsIsTheLastLineInTheFile) {
	const std::string path = (fs::temp_directory_path() / "qor_last_line.log").string();
	const auto thrown = [&] {
		appRawInit(path.c_str(), 0);
		appLogSetFunc([](const char*) -> bool { throw std::runtime_error("no disk"); });
		appmsg("x");
	};
	EXPECT_DEATH(thrown(), "\\(the log's function\\): no disk; the process ends");
	EXPECT_EQ(count(readFile(path), "(the log's function): no disk; the process ends\r\n"), 1u);
	fs::remove(path);
}

TEST_F(Runtime, WholeFile) {
	writeFile("old.LOG", "remains of an older log");
	writeFile("old.cfg", "[MAIN]\nprocessor_speed=2.5\n");
	appInit("old.cfg");
	appmsg("%d of %s %I64d", 1, "two", 1LL << 40);
	appmsg_Raw("50 %s %n");
	appmsg("%s", std::string(20000, 'x').c_str()), appmsg_Raw(std::string(20000, 'x').c_str());
	appAddLogWnd(nullptr);
	appUinit();
	appmsg(nullptr), appmsg_Raw(nullptr);
	EXPECT_EQ(mLog.lines.back().size(), 13u);
	appmsg("to the callback only");
	EXPECT_EQ(mLog.lines.back().substr(13), "to the callback only");
	for (int i = 0; i < 9; ++i) EXPECT_EQ(appAddLogWnd(nullptr), i < 8); // empty since the end
	const std::string line = std::string(119, '-') + "\r\n\r\n", time = "[ \\d]{9}\\.\\d\\d ", end = "\r\n" + time,
	                  date = "(Sun|Mon|Tue|Wed|Thu|Fri|Sat), (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) "
	                         "\\d\\d, \\d{4} at \\d\\d:\\d\\d:\\d\\d\\.\\d{3}\\]\r\n";
	const std::regex whole(
	    "Time in ms   Message\r\n\r\n" + line + time + "\\[ System Started     " + date +
	    "-< Machine Report >-{101}\r\n\r\n" + time + //
	    "   Processor Speed \\.{12} 2500000000\\.00" + end + "   Memory \\(TOTAL PHYSICAL\\) \\.{4} \\d+ KB" + end +
	    "   Memory \\(AVAIL PHYSICAL\\) \\.{4} \\d+ KB" + end + "   Current Directory \\.{10} .+" + end +
	    "   Current User \\.{15} .+" + end + "   Computer Name \\.{14} .+" + end + "   OS Target \\.{18} 64 bits \r\n" +
	    line + time + "1 of two 1099511627776" + end + "50 %s %n\r\n" + line + time + "\\[ System Finished    " + date);
	std::string text = readFile("old.LOG");
	const std::string cut = " " + std::string(8191 - 13, 'x') + "\r\n";
	EXPECT_EQ(count(text, cut), 2u);
	for (size_t at; (at = text.find(cut)) != std::string::npos;) text.erase(at - 12, cut.size() + 12);
	EXPECT_TRUE(std::regex_match(text, whole)) << text;
}

TEST_F(Runtime, SecondStartKeepsTheFileAndReadsSettingsAgain) {
	writeFile("twice.cfg", "[MAIN]\nprocessor_speed=2\n");
	appInit("twice.cfg");
	writeFile("twice.cfg", "[MAIN]\nprocessor_speed=4\nlog_file=never.log\n");
	appInit("twice.cfg");
	appRawInit("never.log", 5000);
	EXPECT_STREQ(appGetConfigFile(), "stapp_config.cfg");
	const auto text = readFile("twice.LOG");
	for (const char* speed : {" 2000000000.00\r\n", " 4000000000.00\r\n", " 5000.00\r\n"})
		EXPECT_EQ(count(text, speed), 1u) << speed;
	EXPECT_EQ(count(text, "[ System Started"), 3u);
	EXPECT_EQ(count(text, "Time in ms"), 3u);
	EXPECT_FALSE(fs::exists("never.log"));
	appRawInit("", 0);
	appmsg("x");
	EXPECT_EQ(mLog.lines.back().substr(0, 6) + mLog.lines.back().substr(13), "      x"); // from zero again
}

TEST_F(Runtime, MemoryListCountsFromTheNewest) {
	constexpr size_t kLines = 3000; // several blocks
	const size_t before = appLogGetMemListSize();
	mLog.lines.clear();
	appLogActivateMemList(true);
	for (size_t i = 0; i < kLines; ++i) appmsg("line %d", static_cast<int>(i));
	appLogActivateMemList(false);
	appmsg("not kept");
	ASSERT_EQ(appLogGetMemListSize(), before + kLines);
	for (size_t i = 0; i < kLines; ++i) EXPECT_EQ(appLogGetMemListItem(kLines - 1 - i), mLog.lines[i]);
	EXPECT_EQ(appLogGetMemListItem(before + kLines - 1), appLogGetMemListItem(before + kLines + 99));
}

TEST_F(Runtime, ThreadsLogWhileTheLogOpensAndCloses) {
	std::atomic<int> logged{0};
	appLogSetFunc(nullptr);
	std::vector<std::jthread> threads;
	for (int t = 0; t < 4; ++t)
		threads.emplace_back([&](const std::stop_token& stop) {
			while (!stop.stop_requested()) appmsg("a whole line"), ++logged;
		});
	for (int i = 0; i < 20; ++i) {
		appRawInit("busy.log", 0);
		appLogActivateMemList(i % 2 == 0);
		appLogSetFunc([](const char*) -> bool { return appmsg("nested"), true; }); // does not recurse without end
		for (const int enough = logged + 100; logged < enough;) appLogGetMemListItem(0);
		appUinit();
	}
	appLogActivateMemList(false);
	threads.clear();
	const std::string text = readFile("busy.log");
	EXPECT_GT(count(text, "a whole line"), 0u);
	EXPECT_EQ(count(text, "a whole line"), count(text, " a whole line\r\n"));
}

} // namespace
