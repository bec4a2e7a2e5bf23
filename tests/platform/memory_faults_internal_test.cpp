#include "qor/platform/draft.h"
#include "qor/platform/file.h"
#include "qor/platform/folder.h"
#include "qor/platform/profile.h"
#include "qor/platform/thread.h"
#include "support/refused_allocations.h"
#include "support/temp_folder.h"
#include "wait_support.h"

// Every allocation of an operation fails once: the result is the stated failure, or the call
// did without; nothing is thrown, and no file is lost.
namespace platform {
namespace {

using test_support::readFile;
using test_support::writeFile;

TEST(RefusedMemory, IsAResult) {
	test_support::TempFolder folder;
	const std::string ini = folder.path("file.ini"), copy = folder.path("copy.ini"), name = uniqueName(),
	                  all = folder.path(""), deep = folder.path("a/b");
	const std::string old = "[section]\r\nkey=old\r\n", changed = "[section]\r\nkey=new\r\n";
	std::vector<FoundFile> found;
	char text[64];
	const std::tuple<const char*, bool, std::function<bool()>> operations[] = {// whether it allocates on Linux
	    {"draft", true,
	        [&] {
		        Draft draft;
		        return draft.open(ini.c_str()) && draft.write(changed.data(), changed.size()) && draft.commit();
	        }},
	    {"copy", true, [&] { return copyAside(ini.c_str(), copy.c_str()); }},
	    {"write", true, [&] { return profileWriteString("section", "key", "new", ini.c_str()) == 1; }},
	    {"read", true, [&] { return profileGetString("section", "key", "none", text, 64, ini.c_str()) == 3; }},
	    {"list", true, [&] { return listFiles(all.c_str(), "ini", true, 10, &found) && found.size() > 0; }},
	    {"full path", true, [&] { return !fullPath("relative").empty(); }},
	    {"open", true, [&] { return fileSystem().open(ini.c_str(), {}) != nullptr; }},
	    {"folders", false, [&] { return makeFolders(deep.c_str()); }},
	    {"named mutex", true, [&] { return Owned(createMutex(false, name.c_str())) != nullptr; }},
	    {"thread", false, [&] { return Owned(startThread([](void*) { return 0u; }, nullptr)) != nullptr; }}};
	for (const auto& [what, allocates, operation] : operations) {
		SCOPED_TRACE(what);
		int refusals = 0;
		for (bool refused = true; refused; ++refusals) {
			writeFile(ini, old);
			std::filesystem::remove(copy);
			test_support::newCalls = 0;
			test_support::refuseNew = refusals + 1;
			const bool done = operation();
			test_support::refuseNew = 0;
			refused = test_support::newCalls > refusals;
			EXPECT_TRUE(done || refused);
			const std::string left = readFile(ini);
			EXPECT_TRUE(left == old || (done && left == changed)) << left;
			ASSERT_LT(refusals, 1000);
		}
		EXPECT_TRUE(refusals > 1 || !allocates || kPathSeparator == '\\');
	}
	EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 2); // no draft is left
}

} // namespace
} // namespace platform
