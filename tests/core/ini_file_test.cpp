#include "core_test.h"
#include "qor/core/ini_file.h"

namespace {

TEST(IniFile, WithoutPath) {
	const std::string tooLong(260, 'x');
	for (const char* path : {static_cast<const char*>(nullptr), "", tooLong.c_str()}) {
		CstosINIFile file;
		EXPECT_EQ(file.Open(path), 0);
		char out[8];
		EXPECT_EQ(file.GetIntValue("MAIN", "int", 5), 0x10000002);
		EXPECT_EQ(file.GetDoubleValue("MAIN", "real", 5.5), 5.5);
		EXPECT_EQ(file.GetStringValue("MAIN", "text", out, "other", 8), 0x10000002);
		EXPECT_EQ(file.WriteDoubleValue("MAIN", "int", 1), 0x10000002);
	}
}

TEST(IniFile, ReadsAndWrites) {
	const test_support::TempFolder folder;
	const auto path = folder.path("x.cfg");
	test_support::writeFile(path, "[MAIN]\r\nempty=\r\ntext=abc\xE4\r\n");
	CstosINIFile file;
	file.Open(path.c_str());
	EXPECT_EQ(file.WriteIntValue("MAIN", "int", -7) + file.WriteDoubleValue("MAIN", "real", 1234567.0), 2);
	EXPECT_EQ(file.WriteStringValue("MAIN", nullptr, nullptr), 0); // not the whole section
	EXPECT_EQ(file.GetIntValue("MAIN", "int", 5), -7);
	EXPECT_EQ(file.GetDoubleValue("MAIN", "real", 5.5), 1234570.0);
	EXPECT_EQ(file.GetDoubleValue("MAIN", "empty", 5.5), 5.5);
	static constexpr struct {
		const char *name, *key, *fallback, *expected;
		int size, result;
	} cases[] = {
	    {"whole", "text", "d", "abc\xE4", 16, 4},
	    {"cut", "text", "d", "ab", 3, 2},
	    {"null default", "none", nullptr, "", 16, 0},
	    {"null key", nullptr, "default", "de", 3, 2},
	    {"negative size", "text", "d", "##", -1, 0},
	};
	for (const auto& c : cases) {
		SCOPED_TRACE(c.name);
		char out[32] = "##";
		wchar_t wide[32] = L"##";
		EXPECT_EQ(file.GetStringValue("MAIN", c.key, out, c.fallback, c.size), c.result);
		EXPECT_STREQ(out, c.expected);
		EXPECT_EQ(
		    file.GetStringValueWCHAR("MAIN", c.key, wide, c.fallback ? L"\x2164\x2165" : nullptr, c.size), c.result);
		EXPECT_TRUE(c.key || std::wstring(wide) == L"de"); // low bytes of the default
		EXPECT_TRUE(c.result != 4 || static_cast<unsigned long>(wide[3]) == 0xFFE4);
	}
}

} // namespace
