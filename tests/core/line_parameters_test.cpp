#include "core_test.h"
#include "qor/core/line_parameters.h"

namespace {

using namespace core_test;

std::string joined(const CmcLineParSet& set) {
	std::string texts;
	for (int i = 0; i < static_cast<int>(set); ++i) texts += set(i) + std::string("|");
	return texts;
}

std::string joined(const CstqLineParSet& set) {
	std::string texts;
	char text[256];
	for (int i = 0; i < set.GetCount(); ++i) texts += set.GetPar(i, text, sizeof text, "?") + std::string("|");
	return texts;
}

TEST(LineParameters, BothSplitters) {
	enum { kRaw = 0, kPost = 1, kEscapes = 2, kBoth = 3 };
	const struct {
		const char* line;
		int how;
		const char *full, *lean;
	} cases[] = {
	    {"  ", kBoth, "", "|"},
	    {"a,,b", kBoth, "a||b|", "a||b|"},
	    {"a,b,", kBoth, "a|b|", "a|b|b|"},
	    {" a ,\t b , ", kRaw, "a |b |", " a |\t b | |"},
	    {" a ,\t b , ", kPost, "a|b|", "a|b||"},
	    {"x\"a,b\"y,c", kBoth, "x\"a,b\"y|c|", "x\"a,b\"y|c|"}, // inner quotes stay
	    {"\"a\"b\"c", kBoth, "abc|", "abc|"},
	    {"\"\",b", kBoth, "|b|", "|b|"},
	    {R"("a\n\t\r\\\"\x",b)", kBoth, "a\n\t\r\\\"|b|", "a\n\t\r\\\"|b|"},
	    {R"("a\",b",c)", kBoth, "a\",b|c|", "a\",b|c|"},
	    {R"("a\",b",c)", kPost, "a\"|b\",c|", "a\",b|c|"}, // unquoting decodes escapes all the same
	    {R"("\"q",)", kBoth, "\"q|", "\"q|\"q|"},          // the second is not unquoted again
	    {"\"a,b\\", kBoth, "a,b|", "a,b|"},
	    {"\xE9z\xE9,\xA0", kBoth, "z||", "z||"}, // trimmed, though not skipped as blanks are
	    {"\xE9z\xE9,\xA0", kRaw, "\xE9z\xE9|\xA0|", "\xE9z\xE9|\xA0|"},
	};
	CmcLineParSet full;
	CstqLineParSet lean;
	for (const auto& c : cases) {
		SCOPED_TRACE(c.line);
		full.Feed(c.line, c.how & kPost, c.how & kEscapes);
		EXPECT_EQ(joined(full), c.full);
		lean.Feed(c.line, c.how & kPost);
		EXPECT_EQ(joined(lean), c.lean);
	}
	EXPECT_EQ(full.Feed(nullptr, 1, 1) & lean.Feed(nullptr, 1), 0x10000000);
	EXPECT_EQ(static_cast<int>(full) + lean.GetCount() + full.Feed("", 1, 1) + lean.Feed("", 1), 0);
	EXPECT_EQ(joined(CmcLineParSet('\t', "a\t\t b\tc", 1)), "a||b|c|"); // a blank that separates
	lean.SetSeparator(' ');
	lean.Feed("a  b", 1);
	EXPECT_EQ(joined(lean), "a||b|");
}

TEST(LineParameters, Lookups) {
	const char* const line = "set, Gain,12,0.5,$name=\"x\",$cmdport=5,99999999999,\xE9z";
	CmcLineParSet set(',', line, 1);
	EXPECT_EQ(set.par("set", 0) + std::string(set.par("none", 0)), "Gain");
	EXPECT_EQ(set.parInt("Gain", 0, -1) + set.parDouble("Gain", 1, 0) + set.GetIntPar(2, 0), 24.5);
	EXPECT_EQ(set.parInt("gain", 0, -1) + set.parInt("Gain", 2147483647, -1) + set.GetDoublePar(-1, -1), -3);
	EXPECT_EQ(set.GetIntPar(6, 0), 2147483647);
	EXPECT_EQ(set.ePar("$name") + std::string(set.ePar("$NAME")) + set.ePar("$cmd", "none"), "\"x\"\"x\"none");
	EXPECT_FALSE(set.ePar("$cmd") || set.ePar("") || set.ePar(nullptr));
	EXPECT_TRUE(set("Gain") == 1 && set("gain") == 0xFFFFFFFF);
	EXPECT_TRUE(set.GetSrcText(1, line) == line + 5 && set.GetSrcText(7, line) == "\xE9z"s);
	EXPECT_FALSE(set.GetSrcText(8, line) || set.GetSrcText(2, "a,"));
	char out[8] = "";
	EXPECT_STREQ(set.GetPar(5, out, sizeof out, nullptr), "$cmdpor");
	EXPECT_STREQ(set.GetPar(9, out, nullptr), "");
	EXPECT_STREQ(set.parString("set", 1, out, "d"), "12");
	EXPECT_STREQ(set.parString("set", 8, out, 2, "default"), "d");
	set.Feed("x,\"p,q,r\"", 1, 1);
	set.Feed(set(1), 1, 1); // a line inside the line
	EXPECT_EQ(joined(set), "p|q|r|");
}

} // namespace
