#include "core_test.h"
#include "qor/core/ini_file.h"

namespace {

using namespace core_test;

TEST(IniFile, WithoutPath) {
	for (const std::string& path : {""s, std::string(260, 'x')}) {
		CstosINIFile file;
		char out[8];
		wchar_t wide[8];
		EXPECT_EQ(file.Open(path.empty() ? nullptr : path.c_str()), 0);
		for (const int result : {file.GetIntValue("MAIN", "int", 5), file.GetStringValue("MAIN", "text", out, "d", 8),
		         file.GetStringValueWCHAR("MAIN", "text", wide, L"d", 8), file.WriteDoubleValue("MAIN", "int", 1)})
			EXPECT_EQ(result, 0x10000002);
		EXPECT_EQ(file.GetDoubleValue("MAIN", "real", 5.5), 5.5);
	}
}

TEST(IniFile, ReadsAndWrites) {
	const test_support::TempFolder folder;
	const auto path = folder.path("x.cfg");
	test_support::writeFile(path, "[MAIN]\r\nempty=\r\ntext=abc\xE4\r\n");
	CstosINIFile file;
	const auto before = std::filesystem::current_path();
	std::filesystem::current_path(folder.path());
	file.Open("x.cfg");
	std::filesystem::current_path(before); // as a file dialog does; the file is the same
	EXPECT_EQ(file.WriteIntValue("MAIN", "int", -7) + file.WriteDoubleValue("MAIN", "real", 1234567.0), 2);
	EXPECT_EQ(file.WriteStringValue("MAIN", nullptr, nullptr), 0); // not the whole section
	EXPECT_EQ(file.GetIntValue("MAIN", "int", 5), -7);
	EXPECT_EQ(file.GetDoubleValue("MAIN", "real", 5.5), 1234570.0);
	EXPECT_EQ(file.GetDoubleValue("MAIN", "empty", 5.5), 5.5);
	static constexpr struct {
		const char *key, *fallback, *expected;
		int size, result;
		const wchar_t* wide;
	} cases[] = {{"text", "d", "abc\xE4", 16, 4, L"abc\xFFE4"}, // the sign goes up
	    {"text", "d", "ab", 3, 2, L"ab"}, {"none", nullptr, "", 16, 0, L""},
	    {nullptr, "default", "de", 3, 2, L"de"}, // low bytes of the default
	    {"text", "d", "##", -1, 0, L"##"}};
	for (const auto& c : cases) {
		SCOPED_TRACE(&c - cases);
		char out[32] = "##";
		wchar_t wide[32] = L"##";
		EXPECT_EQ(file.GetStringValue("MAIN", c.key, out, c.fallback, c.size), c.result);
		EXPECT_STREQ(out, c.expected);
		const auto* fallback = c.fallback ? L"\x2164\x2165" : nullptr;
		EXPECT_EQ(file.GetStringValueWCHAR("MAIN", c.key, wide, fallback, c.size), c.result);
		EXPECT_STREQ(wide, c.wide);
	}
}

} // namespace
