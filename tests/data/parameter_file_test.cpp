#include "qor/data/parameter_file.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <thread>

namespace {

using namespace std::string_literals;
constexpr int kFailure = 0x10000000;

/// "type#ID name=value;(content){inner sections}"
std::string show(const CqorBXML_Section& at) {
	std::string out = at.mType;
	if (at.mID[0]) out += "#"s + at.mID;
	for (int i = 0; i < at.mVarCount; ++i) out += " "s + at.mVars[i]->mName + "=" + at.mVars[i]->mValue + ";";
	if (at.mContentLength) out += "(" + std::string(at.mContent, at.mContentLength) + ")";
	for (int i = 0; i < at.mChildCount; ++i) {
		EXPECT_TRUE(at.mChildren[i]->mDepth == at.mDepth + 1 && at.mChildren[i]->mDocument == at.mDocument);
		out += (i ? "," : "{") + show(*at.mChildren[i]) + (i + 1 < at.mChildCount ? "" : "}");
	}
	return out;
}

struct Document : CqorBXML {
	explicit Document(const std::string& text) { OpenFromBuffer(text.data(), static_cast<int>(text.size())); }
	/// Without the content of the root.
	std::string inner() const { return show(mRoot).substr(mRoot.mContentLength ? mRoot.mContentLength + 2 : 0); }
};

TEST(ParameterFile, TagsAsTheyAreRead) {
	const std::string x30(30, 'x'), x31(31, 'x'), x511(511, 'x'), i300(300, 'i');
	const struct {
		std::string text, sections;
		bool whole = true;
	} cases[] = {{"<camera ID=\"left\" fps=100 mirror>\n<lens f=8.5/></camera>",
	                 "{camera#left ID=\"left\"; fps=100; mirror=1;(\n<lens f=8.5/>){lens f=8.5/;}}"},
	    {"<lens/>", "{lens/}"}, // without a blank the "/" belongs to the type
	    {"<lens /><a b=\"x\"/>", "{lens /=1;,a b=\"x\"/;}"}, {"<a ID=\"left\"/>", "{a#left\"/ ID=\"left\"/;}"},
	    {"<a id=b /><a Id=\"c>", "{a#b id=b; /=1;,a#c Id=\"c;}"},
	    {"<a x=\"1 > 2\">t</a>", "{a x=\"1 ;( 2\">t)}"}, // ">" ends the tag, quoted or not
	    {"<a x=\" 1\t2 \"y z=\"=\">", "{a x=\" 1\t2 \"y; z=\"=\";}"}, {"<a f = 8>", "{a f=1; =; 8=1;}"},
	    {"<a b=c=d>", "{a b=c=d;}"}, {"<a m\xD3r=\xD3 \xD3>", "{a m=1; r=\xD3;}"}, // ends a name, not a value
	    {"<a\xD3 b=1>", "{a}"}, {"< \ta=1></>t", "{ a=1;}"}, {"<  a=1>", "{a=1}"},
	    {"<a><b>1</a>2</b></a>", "{a(<b>1</a>2</b></a>){b(1</a>2</b></a>){/a(2</b></a>){/b(</a>){/a}}}}}"},
	    {"<a></A></a >", "{a(</A></a >){/A(</a >){/a}}}"}, {"<!-- <a> --><?x?>", "{!-- <a=1;( --><?x?>){?x?}}"},
	    {"x</>y<a>", ""}, // the type of the root is empty
	    {"<a><b></b><>", "{a{b}}", false}, {"<a/><b", "{a/}", false}, {"<a>\0</a>"s, "{a}"},
	    {"<" + x31 + "y>1</" + x31 + "y>2</" + x31 + ">",
	        "{" + x31 + "(1</" + x31 + "y>2</" + x31 + ">){/" + x30 + "(2</" + x31 + ">){/" + x30 + "}}}"},
	    {"<" + x511 + "yz b>", "{" + x31 + " z=1; b=1;}"},
	    {"<a ID=" + i300 + ">", "{a#" + i300.substr(45) + " ID=" + i300 + ";}"}};
	for (const auto& c : cases) {
		const Document document(c.text);
		EXPECT_EQ(document.inner(), c.sections) << c.text;
		EXPECT_EQ(document.mRoot.mContentLength != 0, c.whole) << c.text;
	}
}

TEST(ParameterFile, Values) {
	const std::string zeros(5000, '0'), nines(5000, '9');
	const struct {
		std::string value;
		int asInt;
		double asDouble;
		std::string text = value;
	} cases[] = {{"-3.9", -39, -3.9}, {"12.7", 127, 12.7}, {"2,5", 25, 25}, {"\"left 7\"", 7, 7, "left 7"},
	    {"\"left\"/", 0, 0, "left\""}, {"\"", 0, 0, ""}, {"", 0, 0}, {"1e-5", 1, 1}, {"+-5", 0, 0},
	    {"x+5.5.5", 555, 5.5}, {"99999999999", 2147483647, 99999999999.0},
	    {"-2147483649", -2147483647 - 1, -2147483649.0}, {"-" + zeros + "7." + zeros, -2147483647 - 1, -7},
	    {"0." + zeros + "1", 1, 0}, {"-" + nines, -2147483647 - 1, -HUGE_VAL}};
	for (const auto& c : cases) {
		CqorBXML_Section section;
		section.AddVar("v", c.value.c_str());
		std::string out(c.value.size() + 9, '#');
		EXPECT_TRUE(section.GetIntVar("v", 5) == c.asInt && section.GetDoubleVar("v", 5) == c.asDouble) << c.value;
		EXPECT_TRUE(section.GetStringVar("v", out.data(), "d") == 0 && out.c_str() == c.text) << out;
		EXPECT_EQ(section.CopyStringVar("v", out.data(), 3, "d"), c.text.size() < 3 ? 0 : kFailure);
		EXPECT_EQ(out.c_str(), c.text.substr(0, 2));
	}
	const Document document("<a b=1>");
	char out[8];
	EXPECT_EQ(document.GetIntVar("a.c", 5) + document.GetDoubleVar("a.c", 0.5), 5.5);
	EXPECT_EQ(document.GetStringVar_Char("a.c", out, "d"), kFailure);
	EXPECT_EQ(document.CopyStringVar("a.b", nullptr, 9, "x"), kFailure);
	EXPECT_STREQ(out, "d");
}

TEST(ParameterFile, Arrays) {
	static const struct {
		const char* value;
		double items[4]; // 9: the default
		int last;
	} cases[] = {{"\"1.5, -2,x3,1e2\"", {1.5, -2, 0, 100}, 1}, {"1,,+3", {1, 0, 3, 9}, 9}, {"1,2,", {1, 2, 0, 9}, 9},
	    {"\"1,25", {1, 2, 9, 9}, 9}, {"5\"a,\\\",b\",7", {5, 7, 9, 9}, 9}, {"", {0, 9, 9, 9}, 9},
	    {"\"\"", {0, 9, 9, 9}, 9}, {"1, ", {1, 0, 9, 9}, 9}, {"\"\v-7,\0015,7,--5\"", {-7, 0, 7, 0}, 0},
	    {"0x10,+0X1p3,-0x.8,0x1p9999", {16, 8, -0.5, HUGE_VAL}, 0}, {"0x1P-9999,0x-5,0xg,-0xeep1", {0, 0, 0, -476}, 0},
	    {"1e400,-1e-400,-5e999,-99999999999,5", {HUGE_VAL, 0, -HUGE_VAL, -99999999999.0}, -2147483647 - 1}};
	for (const auto& c : cases) {
		CqorBXML_Section section;
		section.AddVar("v", c.value);
		double doubles[4] = {};
		float floats[4] = {};
		int ints[5] = {0, 0, 0, 0, 77};
		EXPECT_EQ(section.GetDoubleArray("v", doubles, 4, 9) + section.GetFloatArray("v", floats, 4, 9), 0);
		EXPECT_EQ(section.GetIntArray("v", ints, 4, 9) + section.GetIntArray("v", nullptr, 4, 1), 0);
		for (int i = 0; i < 4; ++i)
			EXPECT_TRUE(doubles[i] == c.items[i] && floats[i] == static_cast<float>(c.items[i])) << c.value;
		EXPECT_EQ(section.GetIntArray("none", ints, 3, 3) + section.GetIntArray("v", ints, -1, 1), kFailure);
		EXPECT_TRUE(ints[0] == 3 && ints[2] == 3 && ints[3] == c.last && ints[4] == 77) << c.value;
	}
}

TEST(ParameterFile, Paths) {
	const Document document("<p k=0><q/></p><P k=1><q k=2 K=3></q><r/></P><p><q k=4 k=5 x=6></q></p>");
	static const struct {
		const char* path;
		int index, value;
		const char* foundIn;
	} cases[] = {{"p.k", 0, 0, "p"}, {"p.k", 1, -1, ""}, // the index counts in one section
	    {"p.q.k", 0, 2, "q"}, {"P.Q.K", 1, 3, "q"}, {"p.q.x", 0, 6, "q"}, {"p.q.k", 2, -1, ""}, {"p.q.k", -1, -1, ""},
	    {"p.q", 0, -1, ""}, {"pp.k", 0, -1, ""}, {"p.", 0, -1, ""}, {"p..k", 0, -1, ""}, {"", 0, -1, ""},
	    {nullptr, 0, -1, ""}};
	for (const auto& c : cases) {
		CqorBXML_Section* foundIn = nullptr;
		EXPECT_EQ(document.GetIntVar(c.path, -1, c.index, &foundIn), c.value) << c.path;
		EXPECT_STREQ(foundIn ? foundIn->mType : "", c.foundIn) << c.path;
	}
	const auto& root = document.mRoot;
	EXPECT_TRUE(document.FindSection("p", 1) == root.mChildren[1] && !document.FindSection("p", 3));
	EXPECT_TRUE(!document.FindSection("p", -1) && !document.FindSection(""));
	EXPECT_TRUE(document.FindSection("p.q/") && !document.FindSection("p.q")); // of the first p only
	EXPECT_EQ(root.FindSectionCountByType("P"), 3);
	EXPECT_EQ(root.mChildren[1]->IsType("P") - root.mChildren[1]->IsType("p") + root.IsID("") - root.IsID(nullptr), 2);
}

TEST(ParameterFile, PathsAfterChanges) {
	std::string text;
	for (int i = 0; i < 40; ++i) text += "<n></n><m></m>";
	const Document shared(text);
	auto* root = shared.mRoot.mChildren[0]->mParent;
	std::thread other([&] { EXPECT_EQ(shared.FindSection("M", 20), root->mChildren[41]); });
	EXPECT_EQ(shared.FindSection("n", 20), root->mChildren[40]);
	other.join();
	root->mChildren[10]->Destroy();
	EXPECT_TRUE(root->FindSection("n", 20) == root->mChildren[42] && root->FindSection("n", 19) == root->mChildren[40]);
	root->mChildren[12]->ProcessHeader("<m>");
	EXPECT_TRUE(root->FindSection("n", 19) == root->mChildren[42] && root->FindSection("m", 21) == root->mChildren[41]);
	for (int i = 0; i < 40; ++i) {
		auto* added = new CqorBXML_Section;
		added->ProcessHeader(i % 2 ? "<m>" : "<A>");
		EXPECT_TRUE(root->AddSection(added) == 0 && root->FindSection(i % 2 ? "M" : "a", i / 2 + i % 2 * 41) == added);
	}
	EXPECT_TRUE(root->FindSectionCountByType("M") == 61 && !root->FindSection("m", 61) && !root->FindSection("none"));
}

std::string walked; // the types and depths that the callback was called for

int note(CqorBXML* document, CqorBXML_Section* section, int depth) {
	walked += section->mType + std::to_string(depth) + " ";
	if (section->IsType("free")) document->FindSection("h")->Destroy();
	if (section->IsType("stop"))
		section->mParent->Destroy();
	else if (section->IsType("reopen"))
		document->OpenFromBuffer("<y>", 3, note);
	else if (section->IsType("delete"))
		delete document;
	return kFailure; // without effect
}

TEST(ParameterFile, Walks) {
	Document document("<a><b><c /></b><b /></a><stop><d>");
	EXPECT_EQ(document.CallBackSection(&document, document.FindSection("a"), 7, note), 0);
	EXPECT_EQ(document.CallBackSection(&document, nullptr, 0, note) + document.CallBackTree(nullptr), kFailure);
	EXPECT_EQ(document.CallBackTree(note), kFailure);
	document.mCallBack = note;
	EXPECT_EQ(document.OpenFromBuffer("<x>", 3) + document.CallBackTree(note), 0);
	CqorBXML_Section host; // without a document
	host.ProcessContent("<a></a><stop></stop><b></b>");
	EXPECT_EQ(document.CallBackSection(nullptr, &host, 0, note) + host.mChildCount, kFailure);
	document.OpenFromBuffer("<free></free><z><stop>", 22, [](CqorBXML*, CqorBXML_Section*, int) { return 0; });
	auto* added = new CqorBXML_Section;
	added->ProcessContent(added->ProcessHeader("<h><c>") + 1);
	document.mRoot.AddSection(added);
	EXPECT_EQ(document.CallBackSection(&document, document.FindSection("z"), 5, note), kFailure);
	EXPECT_EQ(document.CallBackTree(note), 0); // what is destroyed lies beside the visited section
	EXPECT_EQ(document.OpenFromBuffer("<reopen></reopen><z>", 20, note), 0); // which ends with the document it opened
	EXPECT_TRUE(document.FindSection("y") && !document.FindSection("z"));
	EXPECT_EQ((new CqorBXML)->OpenFromBuffer("<delete></delete><z>", 20, note), 0);
	EXPECT_EQ(walked, "b7 c8 b7 a0 b1 c2 b1 stop0 x0 x0 a0 stop0 stop5 free0 0 0 reopen0 y0 delete0 ");
}

TEST(ParameterFile, Opens) {
	const test_support::TempFolder folder;
	const auto path = folder.path("x.prm"), missing = folder.path("none");
	Document document("<old>");
	test_support::writeFile(path, "<a n=\xC3\x81\xC3\x89\xC3\x8D\xC3\x91\xC3\x93\xC3\x9A\xC3\xA1\xC3\xA9"
	                              "\xC3\xAD\xC3\xB1\xC3\xB3\xC3\xBA\xC3\xBC\xC3\xC3\xA9>\xC3");
	EXPECT_EQ(document.Open(path.c_str()), 0);
	EXPECT_STREQ(document.FindVar("a.n")->mValue, "\xC1\xC9\xCD\xD1\xD3\xDA\xE1\xE9\xED\xF1\xF3\xFA\xBC\xC3\xA9");
	EXPECT_EQ(document.mTextLength, 21);
	document.OpenFromBuffer(document.mText + 1, 4); // a part of itself
	EXPECT_STREQ(document.mText, "a n=");
	test_support::writeFile(path, "");
	for (const char* failing : {path.c_str(), missing.c_str(), static_cast<const char*>(nullptr)}) {
		document.OpenFromBuffer("<a>", 3);
		EXPECT_EQ(document.Open(failing), kFailure);
		EXPECT_TRUE(!document.mText && document.mTextLength == 0 && document.mRoot.mChildCount == 0);
	}
	EXPECT_EQ(document.OpenFromBuffer("x", -1) & document.OpenFromBuffer(nullptr, 1), kFailure);
	EXPECT_EQ(document.OpenFromBuffer(nullptr, 0) + document.OpenFromBuffer("x", 0), 0);
}

TEST(ParameterSection, PartsOnTheirOwn) {
	CqorBXML_Section section;
	const char text[] = "<a b=1>2<c></c></a>rest";
	EXPECT_EQ(section.ProcessHeader(text), text + 6);
	EXPECT_EQ(section.ProcessContent(text + 7), text + 19);
	EXPECT_EQ(section.GetParametersFromString("  ID=\"x\" \td"), 0);
	EXPECT_EQ(show(section), "a#x b=1; ID=\"x\"; d=1;(2<c></c>){c}");
	EXPECT_STREQ(section.mHeaderBuff, "a b=1");
	for (const char* bad : {"", "<", "<>", "<a", "a>", static_cast<const char*>(nullptr)})
		EXPECT_EQ(section.ProcessHeader(bad), nullptr);
	EXPECT_TRUE(!section.ProcessContent(nullptr) && !section.AddVar(nullptr, "x"));
	EXPECT_EQ(section.GetParametersFromString(nullptr), kFailure);
	section.Destroy();
	section.AddVar(" \tn ", nullptr);
	EXPECT_EQ(show(section), " n =;");
}

TEST(ParameterSection, TreesOfHosts) {
	Document document("<a><b>");
	auto *a = document.FindSection("a"), *host = new CqorBXML_Section;
	host->ProcessContent("<c><d>");
	EXPECT_EQ(host->AddSection(new CqorBXML_Section), 0);
	for (auto* refused : {host, a, &document.mRoot, static_cast<CqorBXML_Section*>(nullptr)}) // the first contains it
		EXPECT_EQ(host->mChildren[0]->AddSection(refused), kFailure);
	EXPECT_TRUE(a->AddSection(host) == 0 && a->AddSection(host) == kFailure);
	EXPECT_EQ(show(*a), "a(<b>){b,(<c><d>){c(<d>){d},}}");
	EXPECT_EQ(document.FindSection("a..c.d")->mDepth, 4);
	a->Destroy();
	EXPECT_EQ(document.inner(), "{}");
	CqorBXML_Section top, *at = &top; // a chain that must not be destroyed by calls inside each other
	for (int i = 0; i < 200000; ++i, at = at->mChildren[0]) ASSERT_EQ(at->AddSection(new CqorBXML_Section), 0);
	EXPECT_EQ(at->mDepth, 200000);
}

TEST(ParameterFile, DeepAndWideTexts) {
	constexpr int count = 300000;
	std::string deep, path, wide = "<t";
	for (int i = 0; i < count; ++i) deep += "<n>", path += "n.", wide += " v=" + std::to_string(i);
	wide += ">";
	for (int i = 0; i < count; ++i) wide += i % 2 ? "<m v></m>" : "<n v></n>";
	wide += "<b w=7></b>";
	Document nested(deep), flat(wide);
	EXPECT_FALSE(nested.FindVar((path + "v").c_str())); // all the way down and back
	static int deepest;
	nested.CallBackTree([](CqorBXML*, CqorBXML_Section*, int depth) { return deepest = depth; });
	EXPECT_EQ(deepest, count - 1);
	const auto* table = flat.FindSection("t");
	EXPECT_EQ(table->GetIntVar("v", 0, count - 1) + 1, 2 * table->FindSectionCountByType("n"));
	for (int i = 0; i < count; ++i) { // an hour if each lookup began at the first section
		ASSERT_EQ(table->GetSectionByType(i % 2 ? "M" : "n", i / 2), table->mChildren[i]);
		ASSERT_EQ(table->GetIntVar("b.w", table->FindSectionCountByType("none")), 7);
	}
}

} // namespace
