#include "test_support.h"

#include <qor/core/class_manager.h>
#include <qor/plugins/dynamic_module_list.h>

#include <cstdlib>

namespace {

namespace fs = std::filesystem;

const std::string kEntry = QOR_MODULES "/entry.dll", kPlain = QOR_MODULES "/plain.dll";

/// Bytes with a record at `at`.
std::string recordFile(size_t size, uint32_t at, std::u16string text = u"CS(Unicode)", uint32_t extraLength = 0) {
	std::string bytes(size, '.');
	const uint32_t head[] = {0x78AAB1C0, at, 1024, extraLength};
	text.resize(std::min<size_t>(512, (size - at - 16) / 2));
	std::memcpy(bytes.data() + at, head, sizeof head);
	std::memcpy(bytes.data() + at + 16, text.data(), text.size() * 2);
	return bytes;
}

int embed(const std::string& arguments) {
	return std::system((fs::path(QOR_BINARY_FOLDER "/qor_embed").make_preferred().string() + " " + arguments).c_str());
}

struct DynamicModule : testing::Test {
	bool retrieves(const std::string& bytes) {
		writeFile(path, bytes);
		return module.SetFilePath(path.c_str()) == 0 && module.RetrieveDMInfo() == 0;
	}
	TempFolder folder;
	const std::string path = folder.path("file");
	LogCapture log;
	CqorDynamicModule module;
};

} // namespace

TEST_F(DynamicModule, LoadsCallsAndUnloads) {
	const std::string longest(259, 'x');
	EXPECT_TRUE(module.SetFilePath(longest.c_str()) == 0 && module.SetFilePath(nullptr) == kFailure);
	EXPECT_TRUE(module.SetFilePath((longest + "x").c_str()) == kFailure && module.GetFilePath() == longest);
	unsigned long sum = 0;
	char answer[] = "77";
	EXPECT_TRUE(module.Load() == kFailure && !module.IsLoaded() && !module.GetFunc("qorDMFUNC"));
	EXPECT_TRUE(module.SetFilePath(kEntry.c_str()) == 0 && module.Func(1, 2, 3, &sum, answer) == kFailure);
	ASSERT_TRUE(module.RetrieveDMInfo() == 0 && module.Load() == 0 && !module.GetInformation() && module.Load() == 0);
	EXPECT_TRUE(module.Func(1, 2, 3, &sum, answer) == 77 && sum == 123 && module.GetFunc("qorDMFUNC"));
	EXPECT_FALSE(module.GetFunc("none") || module.GetFunc("atoi") || module.GetFunc(nullptr));
	EXPECT_TRUE(module.SetFilePath(kPlain.c_str()) == 0 && module.Func(1, 2, 3, &sum, answer) == 77) << "still loaded";
	EXPECT_TRUE(module.Load() == 0 && module.Func(1, 2, 3, &sum, answer) == kFailure) << "it has no entry function";
}

TEST_F(DynamicModule, IsTheFileThatItsPathNames) {
	const auto before = fs::current_path();
	fs::copy_file(kEntry, folder.path("qor.dll")); // a name that another library of the process has
	fs::copy_file(kPlain, folder.path("plain"));   // and one that another file has with ".dll" behind it
	fs::copy_file(kEntry, folder.path("plain.dll"));
	fs::current_path(folder.path());
	EXPECT_TRUE(module.SetFilePath("qor.dll") == 0 && std::string(module.GetFilePath()) == "qor.dll");
	fs::current_path(before);
	EXPECT_TRUE(module.RetrieveDMInfo() == 0 && module.Load() == 0 && module.GetFunc("qorDMFUNC"));
	EXPECT_TRUE(module.SetFilePath(folder.path("plain").c_str()) == 0 && module.RetrieveDMInfo() == kFailure);
	EXPECT_TRUE(module.Load() == 0 && !module.GetFunc("qorDMFUNC"));

	fs::current_path(QOR_MODULES "/decoy"); // with a library of the needed name
	EXPECT_EQ(module.SetFilePath(QOR_MODULES "/needs.dll") | module.Load(), 0);
	EXPECT_EQ(module.Func(0, 0, 0, nullptr, nullptr), 1) << "from its own folder";
	fs::current_path(before);

	if (fs::path::preferred_separator == '\\' || std::system(("mkfifo " + path).c_str()) != 0) return;
	EXPECT_TRUE(module.SetFilePath(path.c_str()) == 0 && module.RetrieveDMInfo() == kFailure);
	EXPECT_EQ(module.Load() & CqorSIO_PI().piLoad(path.c_str()), kFailure) << "and nobody waits for a writer";
}

TEST_F(DynamicModule, EmbeddedRecordOfARealLibrary) {
	module.SetFilePath(kEntry.c_str());
	ASSERT_TRUE(module.RetrieveDMInfo() == 0 && module.IsUnicode() && module.Is64() && module.IsDebug());
	const auto& found = *module.GetInformation();
	EXPECT_EQ(std::u16string(found.mText), u"CFG(Debug) PL(x64) CS(Unicode) CS(MBCS) gr\u00F6\u00DFer");
	const std::string extra = readFile(QOR_MODULE_SOURCES "/entry.cpp");
	EXPECT_EQ(std::string(found.mExtra, found.mExtra + found.mExtraLength), extra);
	EXPECT_EQ(readFile(kEntry).substr(found.mExtraOffset, extra.size()), extra);
	module.SetFilePath(kPlain.c_str());
	EXPECT_TRUE(module.RetrieveDMInfo() == kFailure && !module.IsUnicode() && !log.has("[ERROR]")) << "it has none";
}

TEST_F(DynamicModule, EmbedReplacesItsOwnRecordAndRefusesTheRest) {
	ASSERT_TRUE(retrieves(std::string(7001, 'L')) || embed("--platform x64 --extra " + kPlain + " " + path) == 0);
	EXPECT_TRUE(module.RetrieveDMInfo() == 0 && module.Is64() && module.GetInformation()->mExtra);
	ASSERT_EQ(embed("--configuration Debug --text " + std::string(500, 'x') + " " + path), 0);
	EXPECT_TRUE(module.RetrieveDMInfo() == 0 && module.IsDebug() && !module.Is64() && !module.GetInformation()->mExtra);
	EXPECT_EQ(fs::file_size(path), 7004u + 1040 + 16);
	EXPECT_NE(embed("--text " + std::string(512, 'x') + " " + path), 0);
	EXPECT_TRUE(retrieves(readFile(path) + "signed") && embed(path) != 0 && module.RetrieveDMInfo() == 0);
	for (const int room : {1056, 1055}) {
		EXPECT_FALSE(retrieves(std::string(33554432 - room, 0)));
		EXPECT_EQ(embed(path) == 0 && module.RetrieveDMInfo() == 0, room == 1056);
	}
	EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), {}), 1) << "nothing is left behind";
}

TEST_F(DynamicModule, EmbedTakesTextAndFilesThatReadersCanUse) {
	const std::string other = folder.path("other"), use = "--text-file " + other + " " + path;
	for (const char* taken : {".qor_embed", ".qor_embed0"}) writeFile(path + taken, "mine");
	ASSERT_TRUE(!retrieves("") && embed(path) != 0 && !retrieves(std::string(2000, 'L')));
	for (const auto& bad : {std::string("C\0S\0", 4), std::string("\xED\xA0\x80")}) {
		writeFile(other, bad);
		EXPECT_TRUE(embed(use) != 0 && fs::file_size(path) == 2000) << bad;
	}
	writeFile(other, "\xEF\xBB\xBFgr\xC3\xB6\xED\x9F\xBF\r\n\n");
	fs::permissions(path, fs::perms::owner_read);
	EXPECT_TRUE(embed(use) != 0 && fs::file_size(path) == 2000) << "read-only";
	fs::permissions(path, fs::perms::owner_all);
	ASSERT_TRUE(embed(use) == 0 && module.RetrieveDMInfo() == 0);
	EXPECT_EQ(std::u16string(module.GetInformation()->mText), u"gr\u00F6\uD7FF");
	EXPECT_EQ(readFile(path + ".qor_embed") + readFile(path + ".qor_embed0"), "minemine");
	ASSERT_TRUE(retrieves(recordFile(3000, 100, u"a\xD800z", 3000 - 1052)));
	EXPECT_TRUE(embed("--show --text x " + path) != 0 && embed("--show " + path + " > " + other) == 0);
	const std::string shown = readFile(other);
	EXPECT_TRUE(shown.find("data 0 bytes") != shown.npos && shown.find("a\xEF\xBF\xBDz") != shown.npos) << shown;
}

TEST_F(DynamicModule, FirstTagOfAKindDecides) {
	const std::u16string full(501, u'x');
	for (const auto& [text, expected] :
	    {std::pair<std::u16string, int>(u"cs(unicode) Pl(X64) cfg(DEBUG)", 111), {u"CS(MBCS) CS(Unicode)PL(x64)", 10},
	        {u"CFG(Debugger)CFG(Debug) PL(x64 ", 0}, {full + u"CS(Unicode)", 100}, {full + u".........PL(x64)", 0},
	        {std::u16string(u"\0CS(Unicode)", 12), 0}}) {
		EXPECT_TRUE(retrieves(recordFile(3000, 7, text)));
		EXPECT_EQ(module.IsUnicode() * 100 + module.Is64() * 10 + module.IsDebug(), expected);
	}
}

TEST_F(DynamicModule, RecordIsFoundWhereverItBegins) {
	constexpr uint32_t size = 600000, window = 0x40000;
	for (const uint32_t at : {0u, 1u, 255u, 256u, 257u, window - 12, window - 11, window - 1, window, size - 1053}) {
		auto bytes = recordFile(size, at);
		EXPECT_TRUE(retrieves(bytes) && module.IsUnicode()) << at;
		bytes[at + 4] ^= 1;
		EXPECT_FALSE(retrieves(bytes)) << at;
	}
	EXPECT_FALSE(retrieves(recordFile(size, size - 1052)));
	auto bytes = recordFile(size, 5000, u"CS(MBCS)");
	bytes.replace(3000, 1040, recordFile(1040, 0)); // a copy from elsewhere
	EXPECT_TRUE(retrieves(bytes) && !module.IsUnicode());
	bytes[5008] ^= 1;
	EXPECT_TRUE(!retrieves(bytes) && !module.GetInformation()) << "a size other than 1024";
}

TEST_F(DynamicModule, ExtraDataStayWithinTheFile) {
	constexpr uint32_t size = 5000, limit = size - 1052, there = size - 1000 - 1040;
	for (const uint32_t length : {0u, 1u, there, limit - 1, limit, 0xFFFFFFFFu}) {
		ASSERT_TRUE(retrieves(recordFile(size, 1000, u"", length)));
		const auto& found = *module.GetInformation();
		const uint32_t kept = length < limit ? length : 0, bytes = std::min(kept, there);
		EXPECT_TRUE(found.mExtraLength == kept && found.mExtraOffset == (kept ? 2040 : 0) && !found.mExtra == !kept);
		const std::string expected = std::string(bytes, '.') + std::string(kept + 4096 - bytes, 0);
		EXPECT_TRUE(!kept || std::string(found.mExtra, found.mExtra + kept + 4096) == expected) << length;
	}
}

TEST_F(DynamicModule, FileSizesAtTheLimits) {
	for (const auto& [size, message] : {std::pair<uintmax_t, const char*>(0, "INVALID SIZE (0 Bytes)"),
	         {1052, "INVALID SIZE (1052 Bytes)"}, {1053, nullptr}, {33554432, nullptr},
	         {33554433, "FILE TOO BIG (33554433 Bytes)"}, {3000000000, "FILE TOO BIG (2147483647 Bytes)"}}) {
		EXPECT_TRUE(retrieves(recordFile(1053, 0)));
		log.clear();
		fs::resize_file(path, size);
		EXPECT_EQ(module.RetrieveDMInfo(), message ? kFailure : 0) << size;
		EXPECT_EQ(log.has(message ? message : "[ERROR]"), message != nullptr) << size;
	}
}

TEST_F(DynamicModule, ProductVersion) {
	const bool windows = fs::path::preferred_separator == '\\'; // elsewhere the file's name tells
	const std::string link = folder.path("a.so"), other = folder.path("b.so.6.7"), none = folder.path("c.so.x");
	for (const auto& file : {link + ".3.4.5", other, none}) writeFile(file, "");
	if (!windows) fs::create_symlink("a.so.3.4.5", link);
	char version[kQorProductVersionSize] = "?";
	for (const auto& [file, expected] :
	    {std::pair(windows ? kEntry : link, "3.4.5"), {windows ? kPlain : other, "6.7"}, {none, "6.7"}}) {
		EXPECT_TRUE(module.SetFilePath(file.c_str()) == 0 && module.GetProductVersionString(version) == 0);
		EXPECT_STREQ(version, expected) << file; // without one of its own: the latest of the process
	}
	EXPECT_TRUE(module.GetProductVersionString(version, 3) == 0 && std::string(version) == "6.");
	EXPECT_EQ(module.GetProductVersionString(nullptr) & module.GetProductVersionString(version, 0), kFailure);
	EXPECT_TRUE(module.SetFilePath(path.c_str()) == 0 && module.GetProductVersionString(version) == kFailure);
}

TEST(DynamicModuleList, ListsEachPathOnceAndLoadsWhatLoads) {
	const TempFolder folder;
	const std::string text = folder.path("text.so"), upper = folder.path("TEXT.so"), tooLong(260, 'p');
	writeFile(text, recordFile(2000, 0)); // no library
	CqorDynamicModuleList list;
	for (const auto& path : {text, kPlain, kEntry}) EXPECT_EQ(list.AddByFilePath(path.c_str()), nullptr);
	EXPECT_TRUE(list.AddByFilePath(upper.c_str()) == list.Get(0) && list.GetByFilePath(upper.c_str()) == list(0));
	EXPECT_FALSE(list.AddByFilePath(nullptr) || list.AddByFilePath(tooLong.c_str()) || list.Get(3) || list.Get(-1));
	EXPECT_TRUE(!list.GetFunc("shared") && !list.GetByFilePath("none") && list.LoadAll() == 2 && list.GetCount() == 3);
	EXPECT_TRUE(list.GetFunc("qorDMFUNC") && list.GetFunc("shared") == list(1)->GetFunc("shared")) << "the first";
	EXPECT_EQ(list(0)->RetrieveDMInfo() + list(2)->RetrieveDMInfo(), 0);
	list.DestroyAll();
	EXPECT_TRUE(list.GetCount() == 3 && !list.GetFunc("shared") && !list(2)->GetInformation());
	EXPECT_TRUE(list(0)->GetInformation()) << "not loaded, so left alone";
	for (const char* type : {"CqorDynamicModule", "CqorDynamicModuleList"})
		EXPECT_TRUE(std::unique_ptr<Cmc>(qorMCGetManager()->classNew(type))->istype(type));
}

TEST(DynamicModuleList, Folders) {
	const TempFolder folder;
	const std::string plugIns = folder.path("Plug-Ins"), below = (fs::path(plugIns) / "below" / "").string();
	fs::create_directories(below);
	for (const char* name : {"../b.MOD", "../a.mod", "../c.other", "d.mod"}) writeFile(below + name, "");
	static std::pair<std::string, int> cases[] = {{"qorBin", 0}, {"qorBin=" + folder.path(), 2},
	    {"qorBin=" + folder.path() + "/", 2}, {"qorBin=" + folder.path() + "\\", 2},
	    {"qorBin=" + std::string(5000, 'x'), 0}, {"qorBin=", 0}}; // the environment refers to them
	for (auto& [variable, count] : cases) {
		CqorDynamicModuleList list;
		putenv(variable.data());
		EXPECT_TRUE(list.AddByQORPlugInsFolder("mod", 0) == 0 && list.GetCount() == count) << variable;
	}
	LogCapture log;
	CqorDynamicModuleList list;
	for (const int recursive : {0, 1, 1}) EXPECT_EQ(list.AddByFolder(plugIns.c_str(), "mod", recursive), 0);
	EXPECT_TRUE(list.GetCount() == 3 && list(2)->GetFilePath() == below + "d.mod") << "a folder's own files come first";
	const std::string fits = below + std::string(259 - below.size() - 4, 'f');
	for (const auto& path : {fits, fits + 'f'}) writeFile(path + ".fit", "");
	for (int i = 0; i < 1030; ++i) writeFile(below + std::to_string(i) + ".many", "");
	for (const char* extension : {"fit", "many"}) list.AddByFolder(plugIns.c_str(), extension, 1);
	EXPECT_EQ(list.GetCount(), 3 + 1 + 1024);
	EXPECT_EQ(log.has("No full path of at most 259 characters"), fs::exists(fits + "f.fit")); // where it can be
}
