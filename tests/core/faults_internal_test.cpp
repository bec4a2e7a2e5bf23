#include "core_test.h"
#include "qor/base/mem_file.h"
#include "qor/core/class_manager.h"
#include "qor/core/ini_file.h"
#include "qor/core/line_file.h"
#include "qor/core/line_parameters.h"
#include "qor/core/object.h"
#include "qor/platform/faults.h"
#include "support/faulty_file_system.h"
#include "support/refused_allocations.h"

namespace {

using platform::FaultPoint;
using Call = test_support::FaultyFileSystem::Call;

/// Runs `action` with its 1st, 2nd ... allocation failing. @return how many there were to fail.
template <class Action>
int failEachAllocation(Action action) {
	for (int nth = 1;; ++nth) {
		platform::armFault(FaultPoint::memory, nth);
		action(nth);
		const int calls = platform::faultCalls(FaultPoint::memory);
		platform::armFault(FaultPoint::memory, 0);
		if (calls < nth) return nth - 1;
	}
}

struct LogFile : testing::Test {
	~LogFile() override { appUinit(); }
	test_support::TempFolder folder;
	test_support::FaultyFileSystem files;
	const std::string path = folder.path("x.LOG");
};

TEST_F(LogFile, SharingIsUpToTheWayOfStarting) {
	const platform::FileOpen writing{platform::Disposition::openExisting, platform::kAccessWrite};
	appInit(folder.path("x.cfg").c_str());
	EXPECT_FALSE(files.open(path.c_str(), writing));
	appUinit();
	appRawInit(path.c_str(), 0);
	EXPECT_TRUE(files.open(path.c_str(), writing));
}

TEST_F(LogFile, OneWriteALineWithoutTheHeapAndNoRetryOfAFullDisk) {
	appRawInit(path.c_str(), 0);
	const int before = files.calls(Call::write);
	EXPECT_EQ(failEachAllocation([](int) { appmsg("%s %d", "text", 5); }), 0);
	files.tearWrite(2, 15);
	appmsg("whole");
	appmsg("torn");
	files.setSpace(0);
	appmsg("lost");
	EXPECT_EQ(files.calls(Call::write), before + 1 + 1 + 2 + 1);
	const auto text = test_support::readFile(path);
	EXPECT_EQ(text.substr(text.find("whole\r\n") + 7 + 13), "torn\r\n");
}

TEST_F(LogFile, StartSucceedsWithoutFileLockAndMemory) {
	core_test::LogLines log;
	files.fail(Call::open, 1);
	platform::armFault(FaultPoint::waitObject, 1);
	EXPECT_EQ(appRawInit(path.c_str(), 0), 1);
	platform::armFault(FaultPoint::waitObject, 0);
	EXPECT_EQ(log.lines.size(), 12u);
	appRawInit(path.c_str(), 0); // a later start opens it
	EXPECT_FALSE(test_support::readFile(path).empty());
	appLogActivateMemList(true);
	const size_t before = appLogGetMemListSize();
	EXPECT_GE(failEachAllocation([&](int) { appmsg("kept when there is memory"); }), 1);
	appLogActivateMemList(false);
	EXPECT_EQ(appLogGetMemListSize(), before + 1);
}

TEST(OutOfMemory, ObjectTreesStayWhatTheyWere) {
	std::vector<qor> many(66);
	for (size_t i = 1; i < many.size(); ++i) many[i].setparent(&many[0]);
	EXPECT_GE(failEachAllocation([&](int nth) {
		qor parent, child;
		const bool joined = child.setparent(&parent) == 1;
		EXPECT_TRUE(joined == (child.getparent() == &parent) && joined == (parent.getchildcount() == 1)) << nth;
	}),
	    2);
	EXPECT_EQ(failEachAllocation([&](int nth) { // for the copy of the list
		EXPECT_EQ(many[0]._DispatchMessageSafe(1, nullptr, nullptr), nth == 1 ? kQorFailure : 0);
	}),
	    1);
	const int results[] = {kQorFailure, 0, kQorFailure, 0}; // header, user data left out, objects, none
	failEachAllocation([&](int nth) {
		CstMemFile file;
		EXPECT_EQ(many[1].qorSaveTreeToBuffer(&file, 1, 4, "user"), results[nth - 1]) << nth;
		file.Seek(0, 0);
		EXPECT_EQ(many[2].qorLoadTreeFromBuffer(&file, nullptr, nullptr, nullptr), results[nth - 1]) << nth;
	});
}

TEST(OutOfMemory, EveryGroupFailsAsStatedWhicheverAllocationIsRefused) {
	const test_support::TempFolder folder;
	const auto settings = folder.path("x.cfg"), text = folder.path("x.xml");
	qorMCGetManager()->classAdd("Cmc", Cmc::qorMC__CLASSFUNC, nullptr);
	test_support::refuseEach("settings", [&] {
		CstosINIFile file;
		char out[8];
		file.Open(settings.c_str());
		return file.WriteIntValue("A", "key", 1) == 1 && file.GetStringValue("A", "key", out, "", 8) == 1;
	});
	test_support::refuseEach("start and log", [&] {
		appLogSetFunc([](const char*) { return true; });
		const int started = appInit(settings.c_str());
		qor().log("line");
		appUinit();
		appLogSetFunc(nullptr);
		return started == 1;
	});
	std::string line;
	for (int i = 0; i < 40; ++i) line += "p,"; // more than one block of parameters
	test_support::refuseEach("lines", [&] {
		CmcLineParSet full;
		const int count = full.Feed(line.c_str(), 1, 1), lean = CstqLineParSet().Feed(line.c_str(), 1);
		EXPECT_TRUE(count == 40 || ((count == -1 || count == kQorFailure) && static_cast<int>(full) == 0)) << count;
		EXPECT_TRUE(lean == 41 || lean == -1 || lean == kQorFailure) << lean;
		return CstqLineFile().OpenFromBuffer("a", 1) == 1 && count == 40 && lean == 41;
	});
	test_support::refuseEach("classes", [] {
		CqorMCManager manager;
		const bool added = manager.classAdd("Mine", Cmc::qorMC__CLASSFUNC, nullptr) != nullptr;
		const std::unique_ptr<Cmc> made(manager.classNew("Mine"));
		return added && made && manager.GetRoot();
	});
	test_support::refuseEach("trees and their XML", [&] {
		Cmc root, hub, copy;
		bool whole = hub._mcAttach(&root) == 1;
		EXPECT_EQ(hub._mcGetChildCount(), whole);
		for (int i = 0; i < 35 && whole; ++i) whole = Cmc::_mcCreate(&root, "wide") != nullptr;
		EXPECT_TRUE(!whole || root._mcGetChildCount() == 35);
		Cmc* deepest = &root;
		for (int i = 0; i < 20 && whole; ++i) whole = (deepest = Cmc::_mcCreate(deepest, "deep")) != nullptr;
		eqorMC_SEQHDR* header = whole ? Cmc::_mcAllocSeqHdr(0) : nullptr;
		const int filled = header ? root._mcfillseq(header) : kQorFailure;
		whole = filled == 56 && header->mCount == 56;
		EXPECT_TRUE(whole || filled == kQorFailure); // never a part of it as the whole
		Cmc::_mcFreeSeqHdr(header);
		whole = whole && root._mcGetChildByName("deep") && root._mcDispatchMsg(9, 0, 0, nullptr, nullptr, 0) == 0;
		whole = whole && root._mcSaveToXMLFile(text.c_str(), 0) == 0;
		for (const int update : {0, 1}) {
			whole = whole && copy._mcLoadFromXMLFile(text.c_str(), update) == 0;
			EXPECT_TRUE(!whole || copy._mcGetChildCount() == 36);
		}
		root._mcDestroy(), copy._mcDestroy();
		return whole;
	});
}

TEST(FullDisk, XmlKeepsTheOldFile) {
	const test_support::TempFolder folder;
	const auto path = folder.path("x.xml");
	test_support::writeFile(path, "old");
	test_support::FaultyFileSystem files;
	Cmc root;
	Cmc::_mcCreate(&root, "child");
	for (const int space : {5, 1000}) {
		files.setSpace(space);
		EXPECT_EQ(root._mcSaveToXMLFile(path.c_str(), 0), space == 5 ? kQorFailure : 0);
		EXPECT_EQ(test_support::readFile(path) == "old", space == 5);
	}
	root._mcDestroy();
}

} // namespace
