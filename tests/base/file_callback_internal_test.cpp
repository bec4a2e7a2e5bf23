#include "support/faulty_file_system.h"
#include "support/temp_folder.h"

#include <qor/base/file.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

namespace {

const test_support::TempFolder folder;
const std::string first = folder.path("first"), second = folder.path("second");
char block[65536]; // longer than what is written

/// What a callback may do to its own file.
using Operation = void (*)(CstFile*& file);
constexpr Operation operations[] = {
    [](CstFile*& f) { f->Close(); },
    [](CstFile*& f) { f->Create(second.c_str(), CstFile::kAccessReadWrite, CstFile::kShareReadWrite); },
    [](CstFile*& f) { f->OpenDisk(first.c_str()); },
    [](CstFile*& f) { f->OpenFromMemory(block, sizeof block); },
    [](CstFile*& f) { f->PrepareForStreaming(4, 3, CstFile::kWriteStreaming); },
    [](CstFile*& f) { f->PrepareForStreaming(4, 3, CstFile::kReadStreaming); },
    [](CstFile*& f) { f->FinishStreaming(); },
    [](CstFile*& f) { f->Write("text", 4), f->Seek(0, CstFile::kSeekBegin), f->GetSize64(); },
    [](CstFile*& f) { f->FlushBuffer(f->GetStreamInfo() ? f->GetStreamInfo()->mBuffers : nullptr); },
    [](CstFile*& f) { f->FlushToNextBuffer(); },
    [](CstFile*& f) { f->SetCallBack(nullptr); },
    [](CstFile*& f) { delete std::exchange(f, nullptr); },
};

/// What the host is doing meanwhile; each stops when the file is gone.
using Step = void (*)(CstFile& file);
constexpr auto arm = [](CstFile& f) { f.PrepareForStreaming(4, 4, CstFile::kWriteStreaming); };
constexpr auto fill = [](CstFile& f) { f.Write(nullptr, 6000); };
constexpr auto create = [](CstFile& f) { f.Create(first.c_str(), CstFile::kAccessReadWrite, 3); };
constexpr auto close = [](CstFile& f) { f.Close(); };
constexpr Step scripts[][4] = {
    {create, close},
    {arm, fill, [](CstFile& f) { f.FinishStreaming(); }},
    {arm, fill, close},
    {arm, fill, create, fill},
    {arm, fill, arm, fill},
    {fill, [](CstFile& f) { f.Seek(0, 0); }, [](CstFile& f) { f.Read(nullptr, 5); },
        [](CstFile& f) { f.OpenDisk(""); }},
    {[](CstFile& f) { f.PrepareForStreaming(4, 2, CstFile::kReadStreaming); },
        [](CstFile& f) { f.FlushBuffer(f.GetStreamInfo() ? f.GetStreamInfo()->mBuffers : nullptr); }},
};

CstFile* file;
std::atomic<unsigned long> awaited;
std::atomic<Operation> awaiting; // the writer's thread may come for it

unsigned long onCode(CstFile*, unsigned long code, unsigned long, unsigned long, void*) {
	const auto operation = code == awaited ? awaiting.exchange(nullptr) : nullptr;
	if (operation) operation(file);
	return 0;
}

} // namespace

TEST(FileCallBack, MayDoAnythingWithItsFile) {
	test_support::FaultyFileSystem files; // counts what is open
	for (const unsigned long code : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 4096})
		for (const auto& operation : operations)
			for (const auto& script : scripts) {
				// The writer's thread is not the file's user and must not destroy it beside one.
				if (&operation == std::end(operations) - 1 && (code == 10 || code == 11) && script[1] == fill) continue;
				file = new CstFile;
				create(*file);
				awaited = code, awaiting = operation;
				file->SetCallBack(onCode);
				for (const Step step : script)
					if (step && file) step(*file);
				awaiting = nullptr;
				delete std::exchange(file, nullptr);
			}
	EXPECT_EQ(files.openFiles(), 0);
}

TEST(FileCallBack, TheProducerIsNeverHeldUpByTheWritersCall) {
	static std::atomic<bool> entered, asked;
	CstFile streamed;
	create(streamed);
	streamed.SetCallBack([](CstFile* f, unsigned long code, unsigned long, unsigned long, void*) -> unsigned long {
		if (code != CstFile::kCallBackFlushBegin || entered.exchange(true)) return 0;
		while (!asked) std::this_thread::yield();
		// Another thread's file: only looked at.
		EXPECT_TRUE(
		    f->Close() == 0 && f->Write("x", 1) == 0 && f->PrepareForWriteStreaming(4) == CstFile::kFileNotOpen);
		return 0;
	});
	arm(streamed);
	fill(streamed);
	while (!entered) std::this_thread::yield();
	EXPECT_EQ(streamed.GetSize64() + streamed.GetCurrentPos64() + streamed.Seek64(0, CstFile::kSeekBegin), 0);
	asked = true;
	streamed.FinishStreaming();
	EXPECT_TRUE(streamed.IsOpen() && streamed.GetLostBytes() == 0 && streamed.GetSize() == 8192u);
}
