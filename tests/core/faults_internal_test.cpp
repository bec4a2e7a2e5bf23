#include "core_test.h"
#include "qor/base/mem_file.h"
#include "qor/core/class_manager.h"
#include "qor/core/line_file.h"
#include "qor/core/line_parameters.h"
#include "qor/core/object.h"
#include "qor/platform/faults.h"
#include "support/faulty_file_system.h"

namespace {

using platform::FaultPoint;
using Call = test_support::FaultyFileSystem::Call;

/// The object logs make their buffers with the first lines of the process: two and one.
struct FirstLines {
	FirstLines() {
		const qor object;
		const Cmc managed;
		appLogSetFunc([this](const char* line) { return lines += std::string(line).back(), true; });
		for (const int nth : {1, 2, 0}) platform::armFault(FaultPoint::memory, nth), object.log("%d", nth);
		for (const int nth : {1, 0}) platform::armFault(FaultPoint::memory, nth), managed._mclog("%d", nth);
		appLogSetFunc(nullptr);
	}
	std::string lines;
};
const FirstLines firstLines;

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
	const auto writable = [&] {
		return files.open(path.c_str(), {platform::Disposition::openExisting, platform::kAccessWrite}) != nullptr;
	};
	appInit(folder.path("x.cfg").c_str());
	EXPECT_FALSE(writable());
	appUinit();
	EXPECT_TRUE(writable());
	appRawInit(path.c_str(), 0);
	EXPECT_TRUE(writable());
}

TEST_F(LogFile, OneWriteALineWithoutTheHeapAndNoRetryOfAFullDisk) {
	appRawInit(path.c_str(), 0);
	const int before = files.calls(Call::write);
	platform::armFault(FaultPoint::memory, 1000);
	appmsg("%s %d", "text", 5);
	EXPECT_EQ(platform::faultCalls(FaultPoint::memory), 0);
	platform::armFault(FaultPoint::memory, 0);
	EXPECT_EQ(files.calls(Call::write), before + 1);
	files.tearWrite(1, 15);
	appmsg("torn");
	files.setSpace(0);
	appmsg("lost");
	EXPECT_EQ(files.calls(Call::write), before + 4);
	const auto text = test_support::readFile(path);
	EXPECT_EQ(text.substr(text.find("text 5\r\n") + 8 + 13), "torn\r\n");
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

TEST(OutOfMemory, ObjectLogsDropTheLine) { EXPECT_EQ(firstLines.lines, "00"); }

TEST(OutOfMemory, ObjectListsStayAsTheyAre) {
	for (int nth = 1; nth <= 2; ++nth) {
		qor first, second, child;
		std::vector<qor> many(65);
		for (auto& one : many) one.setparent(&second);
		platform::armFault(FaultPoint::memory, nth);
		EXPECT_EQ(child.setparent(&first), 0) << nth;
		EXPECT_TRUE(!child.getparent() && first.getchildcount() == 0);
		platform::armFault(FaultPoint::memory, 1); // for the copy
		EXPECT_EQ(second._DispatchMessageSafe(1, nullptr, nullptr), 0x10000000);
		platform::armFault(FaultPoint::memory, 0);
	}
}

TEST(OutOfMemory, ObjectTreeIsSavedWithoutItsUserData) {
	qor root, child;
	child.setparent(&root);
	const int results[] = {0x10000000, 0, 0x10000000, 0x10000000, 0}; // header, user data, two objects, none
	const int failures = failEachAllocation([&](int nth) {
		CstMemFile file;
		EXPECT_EQ(root.qorSaveTreeToBuffer(&file, 1, 4, "user"), results[nth - 1]) << nth;
		file.Seek(0, 0);
		EXPECT_EQ(root.qorLoadTreeFromBuffer(&file, nullptr, nullptr, nullptr), results[nth - 1]) << nth;
	});
	EXPECT_EQ(failures, 4);
}

TEST(OutOfMemory, ManagedTreesStayWhatTheyWere) {
	Cmc root, child;
	Cmc::_mcCreate(&root, "first");
	const int failures = failEachAllocation([&](int) {
		const bool joined = child._mcSetParent(&root) == 0;
		EXPECT_EQ(root._mcGetChildCount(), joined ? 2 : 1);
		EXPECT_EQ(child._mcGetParent(), joined ? &root : nullptr);
		child._mcSetParent(nullptr);
		Cmc copy(root); // without memory for a list of its own the child leaves all the same
		copy._mcDetach(root._mcGetChild(0));
		EXPECT_EQ(copy._mcGetChildCount() + 1, root._mcGetChildCount());
		eqorMC_SEQHDR* header = Cmc::_mcAllocSeqHdr(0);
		const int filled = header ? root._mcfillseq(header) : 2;
		EXPECT_TRUE(filled == 2 || (filled == kQorFailure && header->mCount == 0));
		Cmc::_mcFreeSeqHdr(header);
	});
	EXPECT_EQ(failures, 4); // the child list, the header, its items, their growth
	root._mcDestroy();
}

TEST(OutOfMemory, XmlLoadsWholeOrFails) {
	qorMCGetManager()->classAdd("Cmc", Cmc::qorMC__CLASSFUNC, nullptr);
	const std::string text = "<Cmc><Cmc/></Cmc><Cmc/>";
	CstMemFile memfile;
	memfile.Write(text.data(), static_cast<unsigned long>(text.size()));
	const int failures = failEachAllocation([&](int) {
		Cmc root;
		const bool loaded = root._mcLoadFromXMLMemFile(&memfile, 0) == 0;
		EXPECT_TRUE(!loaded || (root._mcGetChildCount() == 2 && root._mcGetChild(0)->_mcHasChilds()));
		root._mcDestroy();
	});
	EXPECT_GT(failures, 3);
}

TEST(OutOfMemory, LinesFailAsStated) {
	std::string line;
	for (int i = 0; i < 40; ++i) line += "p,";
	const int expected[] = {0, kQorFailure, kQorFailure, -1, -1, 40}; // two buffers, 32 parameters, 32 more
	const int failures = failEachAllocation([&](int nth) {
		CmcLineParSet full;
		EXPECT_EQ(full.Feed(line.c_str(), 1, 1), expected[nth]);
		EXPECT_EQ(static_cast<int>(full), nth == 5 ? 40 : 0);
	});
	EXPECT_EQ(failures, 4);
	failEachAllocation(
	    [&](int nth) { EXPECT_EQ(CstqLineParSet().Feed(line.c_str(), 1), nth == 5 ? 41 : expected[nth]); });
	EXPECT_EQ(failEachAllocation(
	              [](int nth) { EXPECT_EQ(CstqLineFile().OpenFromBuffer("a", 1), nth > 2 ? 1 : kQorFailure); }),
	    2);
}

} // namespace
