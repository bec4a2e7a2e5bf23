#include "core_test.h"
#include "qor/core/managed_object.h"
#include "qor/core/object.h"

#include <cstring>
#include <functional>
#include <memory>
#include <thread>

namespace {

using namespace core_test;

/// Notes what it is asked and lets a test act in the middle of a dispatch.
class Probe : public qor {
public:
	explicit Probe(const char* id = "", qor* parent = nullptr) { setid("%s", id), setparent(parent); }
	int _OnPreDispatchMessage(uint32_t, void* asked, void*) override {
		*static_cast<std::string*>(asked) += getid();
		if (onPre) onPre();
		return stop;
	}
	int _OnPostDispatchMessage(uint32_t, void* asked, void*) override {
		return *static_cast<std::string*>(asked) += "/", 1;
	}
	int qorOnSaveToBuffer(CstMemFile* file) override {
		return data.empty() || file->Write(data.data(), static_cast<unsigned long>(data.size())) ? 0 : 1;
	}
	int qorOnLoadFromBuffer(CstMemFile* file, uint32_t length) override {
		data.resize(length);
		return file->GetSize() == length && file->Read(data.data(), length) == length ? 0 : 1;
	}
	void setValue(uint32_t value) { mValues[3] = value; }

	std::function<void()> onPre;
	int stop = 0;
	std::string data;
};

std::string childrenOf(const qor& object) {
	std::string ids;
	for (int32_t i = 0; i < object.getchildcount(); ++i) ids += object.getchild(i)->getid();
	return ids;
}

TEST(Object, TextsAreBounded) {
	qor object;
	object.settype("%s-%d", std::string(100, 'a').c_str(), 7);
	object.settype("%s", object.gettype() + 1); // from itself
	EXPECT_TRUE(object.istype(std::string(30, 'a').c_str()) == 1 && object.istype(nullptr) == 0);
}

TEST(Object, ParentsAndChildren) {
	Probe a("a"), b("b"), x("x", &a), y("y", &a), z("z", &a);
	EXPECT_EQ(x.setparent(&a), 1);
	EXPECT_EQ(childrenOf(a), "yzx"); // x went to the end
	EXPECT_EQ(z.setparent(&b), 1);
	EXPECT_EQ(b.setparent(&b) + b.setparent(&z) + z.attach(&b) + b.attach(&b), 0); // below itself
	EXPECT_EQ(b.attach(&z) + b.attach(nullptr) + b.detach(&x) + b.detach(nullptr), 0);
	EXPECT_EQ(a.attach(&z) + b.detach(&z), 2);
	EXPECT_TRUE(z.getparent() == &b && z.setparent(nullptr) == 1 && !z.getparent()); // left alone
	EXPECT_EQ(childrenOf(a) + "|" + childrenOf(b), "yxz|");
	EXPECT_FALSE(a.getchild(3) || a.getchild(-1));
}

TEST(Object, DestructionLeavesNoLinks) {
	auto a = std::make_unique<Probe>("a"), b = std::make_unique<Probe>("b"), c = std::make_unique<Probe>("c", b.get());
	Probe x("x", a.get()), y("y", a.get());
	a->detach(&y); // still its parent
	b->attach(&x);
	x.attach(c.get());
	a.reset();
	EXPECT_TRUE(!x.getparent() && !y.getparent());
	c.reset();
	EXPECT_EQ(childrenOf(*b) + "|" + childrenOf(x), "x|");
}

TEST(Object, Dispatch) {
	for (const auto dispatch : {&qor::_DispatchMessage, &qor::_DispatchMessageSafe}) {
		Probe root("r"), a("a", &root), b("b", &root), c("c", &a);
		std::string asked;
		EXPECT_EQ((root.*dispatch)(1, &asked, nullptr), 0);
		a.stop = 1; // the others go on
		EXPECT_EQ((root.*dispatch)(1, &(asked += " "), nullptr), 0);
		root.stop = 1;
		EXPECT_EQ((root.*dispatch)(1, &(asked += " "), nullptr), 0x10000000);
		EXPECT_EQ(asked, "rac//b// rab// r");
	}
}

TEST(Object, DispatchWhileChildrenLeaveAndDie) {
	auto root = std::make_unique<Probe>("r"), b = std::make_unique<Probe>("b");
	std::vector<Probe> a(70); // more than the copy keeps on the stack
	for (auto& child : a) child.setparent(root.get()), child.onPre = [&child] { child.setparent(nullptr); };
	b->setparent(root.get());
	a[0].onPre = [&] { b.reset(); };
	std::string asked;
	EXPECT_EQ(root->_DispatchMessageSafe(1, &asked, nullptr), 0);
	EXPECT_EQ(asked, "r" + std::string(70 + 1, '/'));
	EXPECT_EQ(root->getchildcount(), 1);
	a[0].onPre = [&] { root.reset(); };
	EXPECT_EQ(root->_DispatchMessage(1, &asked, nullptr), 0);
}

TEST(Object, AMessageReachesOnceWhoStays) {
	Probe root("r"), a("a", &root), b("b", &root), c("c", &root), d("d", &root), e("e", &root);
	a.onPre = [&] { a.setparent(nullptr); };
	c.onPre = [&] { b.setparent(&root), root.detach(&d), a.setparent(&root); };
	std::string asked;
	root._DispatchMessage(1, &asked, nullptr);
	EXPECT_EQ(asked, "ra/b/c/e//");
}

TEST(Object, DeepTreesAndManyWaysUp) {
	std::vector<Probe> deep(20'000), pairs(120);
	for (size_t i = 1; i < deep.size(); ++i) deep[i].setparent(&deep[i - 1]);
	std::string asked;
	core_test::LogLines log;
	EXPECT_EQ(deep[0]._DispatchMessage(1, &asked, nullptr), kQorFailure);
	EXPECT_EQ(asked, std::string(kQorMaximumDispatchDepth, '/'));
	EXPECT_EQ(deep[0].attach(&deep.back()) + deep.back().attach(&deep[0]), 1);
	CstMemFile file;
	EXPECT_EQ(deep[0].qorSaveToBuffer(&file), kQorFailure);
	EXPECT_EQ(log.lines.size(), 2u);
	for (size_t i = 2; i < pairs.size(); ++i)
		EXPECT_EQ(pairs[i - 2 - i % 2].attach(&pairs[i]) + pairs[i - 1 - i % 2].attach(&pairs[i]), 2);
	EXPECT_EQ(pairs.back().attach(&pairs[0]), 0);
}

TEST(Object, LogLines) {
	core_test::LogLines log;
	const struct {
		int level;
		const char *type, *subtype, *text, *expected;
	} cases[] = {
	    {1, "Cam", "raw", "x", "BEGIN   [Cam                 :raw                 ] > x\n"},
	    {2, "Cam", "", "x", "END     [Cam                 ] > x\n"},
	    {3, "Cam", "", "x", "[ERROR] [Cam                 ] > x\n"},
	    {4, "Cam", "", "x", "[WARNING][Cam                 ] > x\n"}, // one column wider
	    {-1, "Cam", "", "x", "        [Cam                 ] > x\n"},
	    {0, "a type longer than twenty", "", nullptr, "        [a type longer than twenty] > (null)\n"},
	    {0, "50%%", "%%s", "%%%% %%s %%n", "        [50%                :%s                 ] > %% %s %n\n"},
	    {0, "%s", "%n", "%d%s%n%", "        [%s                  :%n                  ] > %d%s%n%\n"},
	};
	for (const auto& c : cases) {
		qor object;
		object.settype("%s", c.type);
		object.setsubtype("%s", c.subtype);
		object.log(c.level, "%s", c.text);
		EXPECT_EQ(log.take(), c.expected);
	}
	qor object;
	object.log("%d%%%%", 50);
	EXPECT_EQ(log.take(), "        [                    ] > 50%\n");
	object.log("%s", std::string(40000, 'x').c_str());
	EXPECT_EQ(log.take().size(), 8192u - 13);
	std::string seen;
	appLogSetFunc([&](const char* text) { // a callback that logs through an object
		if (seen.empty()) seen = "nested", object.log("again");
		return seen += std::strrchr(text, '>'), true;
	});
	object.log("outer");
	EXPECT_EQ(seen, "nested> again> outer");
	appLogSetFunc([&](const char* text) { // one that waits for a thread that logs
		const auto logs = [&] { object.log("thread"), Cmc()._mclog("thread"); };
		return std::strstr(text, "outer") && (std::thread(logs).join(), true);
	});
	object.log("outer"), Cmc()._mclog("outer");
}

struct TreeBuffer : testing::Test {
	TreeBuffer() {
		root.settype("T");
		root.setValue(0x01020304);
		leaf.data = "leaf data";
	}
	/// Makes the objects of a tree that is loaded, all but "two".
	static qor* make(const eqorTREE_NODE* node, qor*, void* made) {
		if (node->mID == "two"s) return nullptr;
		return static_cast<TreeBuffer*>(made)->made.emplace_back(std::make_unique<Probe>()).get();
	}
	Probe root{"root"}, one{"one", &root}, two{"two", &root}, leaf{"leaf", &one}, copy{"untouched"};
	std::vector<std::unique_ptr<Probe>> made;
	CstMemFile file;
	uint32_t length = 0, tag = 0;
};

TEST_F(TreeBuffer, Bytes) {
	file.Write("behind", 6);
	EXPECT_EQ(root.qorSaveTreeToBuffer(&file, 0xA1B2C3D4, 3, "xyz"), 0);
	const auto field = [](const std::string& text) { return text + std::string(32 - text.size(), 0); };
	const auto number = [](uint32_t n) { return std::string{char(n), char(n >> 8), char(n >> 16), char(n >> 24)}; };
	const auto node = [&](const char* id, const char* type, int children, uint32_t value, const std::string& data) {
		return field(id) + field("qor") + field(type) + field("") + number(children) + std::string(12, 0) +
		       number(value) + number(data.size()) + data;
	};
	EXPECT_EQ(bytesOf(file), "behindqor_" + number(1) + number(0xA1B2C3D4) + number(3) + "xyz" +    //
	                             node("root", "T", 2, 0x01020304, "") + node("one", "", 1, 0, "") + //
	                             node("leaf", "", 0, 0, "leaf data") + node("two", "", 0, 0, ""));
}

TEST_F(TreeBuffer, LoadsWhatWasSaved) {
	root.qorSaveTreeToBuffer(&file, 77, 4, "user");
	two.setparent(nullptr);
	const auto end = file.GetCurrentPos();
	root.qorSaveTreeToBuffer(&file, 78, 4, nullptr);
	file.Seek(0, 0);
	const auto* user = static_cast<const char*>(qor::qorGetUserSavePtr(&file, &length, &tag));
	EXPECT_EQ(std::string(user, length) + std::to_string(tag), "user77");
	EXPECT_EQ(copy.qorLoadTreeFromBuffer(&file, make, this, nullptr), 0);
	EXPECT_EQ(file.GetCurrentPos(), end);
	const auto second = bytesOf(file).substr(end);
	file.Seek(0, 2);
	user = static_cast<const char*>(file.GetBuffer(nullptr)) + end + 16; // in the growing file itself
	copy.qorSaveTreeToBuffer(&file, 78, 4, user);
	EXPECT_EQ(bytesOf(file).substr(end), second + second); // without "two" they are the same
}

TEST_F(TreeBuffer, RefusesEverythingThatIsNotWhole) {
	root.qorSaveTreeToBuffer(&file, 1, 2, nullptr);
	const std::string whole = bytesOf(file);
	std::vector<std::string> broken;
	for (size_t size = 0; size < whole.size(); ++size) broken.push_back(whole.substr(0, size));
	for (const size_t offset : {0, 4, 15, 18 + 131, 18 + 151}) // magic, version, lengths, count
		broken.emplace_back(whole)[offset] ^= '\x91';
	for (auto& bytes : broken) {
		CstMemFile cut;
		cut.Open(bytes.data(), static_cast<unsigned long>(bytes.size()));
		EXPECT_EQ(copy.qorLoadTreeFromBuffer(&cut, make, this, nullptr), 0x10000000) << bytes.size();
		EXPECT_TRUE(cut.GetCurrentPos() == 0 && made.empty() && copy.isid("untouched"));
	}
	std::vector<qor> deep(kQorMaximumTreeDepth + 1);
	for (size_t i = 1; i < deep.size(); ++i) deep[i].setparent(&deep[i - 1]);
	EXPECT_EQ(deep[0].qorSaveToBuffer(&file), 0x10000000);
	EXPECT_EQ(deep[1].qorSaveToBuffer(&file), 0);
}

} // namespace
