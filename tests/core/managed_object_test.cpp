#include "core_test.h"
#include "qor/core/managed_object.h"

#include <cstdlib>
#include <functional>
#include <sstream>

namespace {

std::string events; // what the handlers received

class Camera : public Cmc {
public:
	explicit Camera(Cmc* parent = nullptr, const char* name = "Cam") { setname(name), _mcSetParent(parent); }
	const char* gettype() const override { return "Camera"; }
	const char* getbaseclass() const override { return "Device"; }
	const char* getctx() const override { return "lab"; }
	int _mcOnDestroy() override { return note("~"); }
	int _mcOnDispatchMsg(unsigned long message, unsigned long, unsigned long, void*, void*, int depth) override {
		return note(std::to_string(depth)), message == 77 && isname("stop");
	}
	int _mcOnPostDispatchMsg(unsigned long, unsigned long, unsigned long, void*, void*, int depth) override {
		return note("/" + std::to_string(depth));
	}
	int note(const std::string& what) { return events += getname() + what + " ", 0; }
};

std::string childrenOf(const Cmc& parent) {
	std::string names;
	for (int i = 0; i < parent._mcGetChildCount(); ++i) names += parent._mcGetChild(i)->getname() + std::string(" ");
	return names;
}

struct ManagedObject : testing::Test {
	ManagedObject() { events.clear(), root.setname("root"); }
	~ManagedObject() override { root._mcDestroy(); }
	Cmc* add(const char* name, Cmc* parent = nullptr) { return Cmc::_mcCreate(parent ? parent : &root, name); }
	Cmc root;
};

TEST_F(ManagedObject, Names) {
	Cmc object;
	Camera camera; // takes a default name first
	camera._mcSetDefaultName();
	const auto number = std::to_string(std::atoi(object.getname() + 4) + 2);
	EXPECT_EQ(camera.getname(), "Cmc_" + number);
	EXPECT_EQ(camera.setname(camera.getname() + 4), number); // from itself
}

TEST_F(ManagedObject, ChildrenMove) {
	auto *a = add("a"), *b = add("b"), *c = add("c", a);
	b->_mcSetParent(a);
	EXPECT_EQ(childrenOf(*a), "c b ");
	EXPECT_EQ(a->_mcSetParent(c), kQorFailure); // it would contain itself
	EXPECT_EQ(root._mcAttach(c) + root._mcAttach(c) + c->_mcAttach(&root), 1);
	EXPECT_TRUE(c->_mcGetParent() == a && c->_mcGetRoot() == &root);
	add("d", a);
	EXPECT_EQ(a->_mcMoveChild(c, 0xFFFFFFFF) + a->_mcMoveChild(a->_mcGetChild(1), 0), 0);
	EXPECT_EQ(a->_mcMoveChild(c, 3) & a->_mcMoveChild(a, 0) & root._mcMoveChild(nullptr, 0), kQorFailure);
	EXPECT_EQ(childrenOf(*a), "d b c ");
	EXPECT_EQ(root._mcDetach(c) + root._mcDetach(c), 1);
	delete c;
	EXPECT_EQ(childrenOf(*a) + childrenOf(root), "d b a ");
}

TEST_F(ManagedObject, DestroyDeletesFromTheTopAndLeavesNoTrace) {
	auto *a = new Camera(&root, "a"), *b = new Camera(&root, "b");
	new Camera(a, "a1");
	Camera elsewhere;
	a->_mcAttach(new Camera(&elsewhere, "attached"));
	a->_mcDestroy();
	EXPECT_EQ(events, "a~ a1~ attached~ ");
	EXPECT_EQ(childrenOf(root) + childrenOf(elsewhere), "b ");
	EXPECT_EQ(root._mcDestroyChild(a, 1), kQorFailure);
	delete a;
	root._mcDestroyChilds(0);
	EXPECT_FALSE(root._mcHasChilds());
	auto *child = add("child", b), *detached = add("detached", b);
	b->_mcDetach(detached);
	const Cmc copy(*detached);
	delete b;
	EXPECT_TRUE(child->_mcGetRoot() == child && !detached->_mcGetParent() && !copy._mcGetParent());
	EXPECT_EQ(child->_mcSetParent(detached) + detached->_mcSetParent(&root), 0);
}

TEST_F(ManagedObject, CopiesShareUntilOneChanges) {
	auto* original = add("original");
	for (const char* name : {"a", "b", "c"}) add(name, original);
	Cmc copy(*original);
	EXPECT_TRUE(copy.getname() == original->getname() && copy._mcGetParent() == &root);
	copy.setname("copy");
	copy._mcMoveChild(copy._mcGetChild(0), 2);
	EXPECT_EQ(original->getname() + childrenOf(*original) + childrenOf(root), "originala b c original ");
	root._mcDestroy();    // the copy outlives its parent's list
	root = *add("below"); // refused: it would contain itself
	EXPECT_EQ(root._mcGetRoot(), &root);
}

TEST_F(ManagedObject, Lookups) {
	auto *cam = add("Cam"), *lens = add("Lens");
	auto *deep = new Camera(cam, "deep"), *near = new Camera(&root, "Lens");
	auto* leaf = add("leaf", add("middle", deep));
	EXPECT_EQ(root._mcGetChildByName("Camera", nullptr, 3), cam);
	EXPECT_FALSE(root._mcGetChildByName("Cam", nullptr, 2) || root._mcGetChildByName("Cam", nullptr, 200));
	EXPECT_TRUE(root._mcGetChildByName("x", "Lens") == lens && root._mcGetChildByType("Cmc", 1) == lens);
	EXPECT_EQ(root._mcGetChildByNameAndType("x", "Camera", "Lens"), near);
	EXPECT_TRUE(root._mcFindByType("Camera", 0) == deep && root._mcFindByNameAndType("Lens", "Camera", 0) == near);
	EXPECT_TRUE(leaf->_mcFindByType("Camera", 1) == deep && leaf->_mcFindParentByBaseClass("Device") == deep);
	EXPECT_TRUE(leaf->_mcFindByNameAndType("Cam", "Cmc", 1) == cam && !deep->_mcFindByType("Camera", 1));
	EXPECT_EQ(root._mcGetChildIndexByType(near, "Camera") + root._mcGetIndexChildByPtr(near), 2u);
	EXPECT_EQ(root._mcGetChildIndexByType(near, "Cmc") & root._mcGetIndexChildByPtr(leaf), kQorNotFound);
}

TEST_F(ManagedObject, Paths) {
	auto* cam = add("Cam");
	add("Gain", cam);
	add("Cam 1");
	for (int i = 2; i <= 10; ++i) add(("n" + std::to_string(i)).c_str());
	std::istringstream cases(
	    "$root=root $r=root $=root $me=Cam $p=root $parent.$me=root $rooty= $x= Gain=Gain Gai= Gains= Gain.= "
	    "$r.Cam.Gain=Gain Gain[2]=Gain Gain-x= $p.$p= $r.$child[0].Gain=Gain $r.$child[10]=n10 "
	    "$r.$child[11]= $r.$child[-1]= $child[]= $child[0000000000]= $child[000000000]=Gain "
	    "$child[0].= $child[0]x= $child[0= $child=");
	for (std::string one; cases >> one;) {
		const auto equals = one.find('='); // a path from Cam, and the name of what it finds
		const Cmc* found = cam->_mcFind(one.substr(0, equals).c_str());
		EXPECT_EQ(found ? found->getname() : "", one.substr(equals + 1)) << one;
	}
	EXPECT_TRUE(root._mcFind("$r") == &root && cam->_mcFind("$r.Cam 1") && !cam->_mcFind(""));
	core_test::LogLines log;
	EXPECT_FALSE(root._mcFind("Cam->Exp %d"));
	EXPECT_EQ(log.take(), "MEMBER (Exp %d)\n");
}

TEST_F(ManagedObject, MessagesTravelDownAndCanBeStopped) {
	auto* a = new Camera(&root, "a");
	new Camera(new Camera(a, "stop"), "below");
	new Camera(&root, "b");
	root._mcDispatchMsg(77, 0, 0, nullptr, nullptr, 0);
	EXPECT_EQ(std::exchange(events, ""), "a1 stop2 a/1 b1 b/1 ");
	root._mcDispatchMsg(77, 0, 0, nullptr, nullptr, -2);
	EXPECT_EQ(events, "stop0 "); // a and b were still at -1
	a->_mcSelect(1);
	root._mcUnselectAll("Cmc");
	EXPECT_TRUE(a->_mcIsSelected());
	root._mcUnselectAll(nullptr);
	EXPECT_FALSE(a->_mcIsSelected());
	std::string seen;
	const auto note = [](void* context, Cmc* object, int depth) {
		return static_cast<std::string*>(context)->append(object->gettype() + std::to_string(depth)), 0;
	};
	root._mcReport(&seen, nullptr, note);
	root._mcReport(&seen, "Cmc", note);
	EXPECT_EQ(seen, "Cmc0Camera1Camera2Camera3Camera1Cmc0");
	EXPECT_EQ(root._mcReport(&seen, nullptr, nullptr), kQorFailure);
}

TEST_F(ManagedObject, AMessageReachesOnceWhoStaysWhateverHandlersDo) {
	struct Actor : Camera {
		using Camera::Camera;
		int _mcOnDispatchMsg(unsigned long, unsigned long, unsigned long, void*, void*, int) override {
			note("");
			if (act) std::exchange(act, nullptr)();
			return 0;
		}
		int _mcOnPostDispatchMsg(unsigned long, unsigned long, unsigned long, void*, void*, int) override { return 0; }
		std::function<void()> act;
	};
	std::vector<Actor*> x;
	for (const char* name : {"a", "b", "c", "d", "e", "f", "g"}) x.push_back(new Actor(&root, name));
	Cmc elsewhere;
	x[0]->act = [&] { x[0]->_mcSetParent(&elsewhere); };
	x[1]->act = [&] { root._mcMoveChild(x[1], 5), root._mcMoveChild(x[6], 0); };
	x[2]->act = [&] { delete x[3], delete x[1], new Actor(&root, "joined"); };
	x[4]->act = [&] { delete x[4]; };
	x[6]->act = [&] { root._mcDispatchMsg(0, 0, 0, nullptr, nullptr, -1); };
	root._mcDispatchMsg(0, 0, 0, nullptr, nullptr, 0);
	EXPECT_EQ(events, "a b c e f g g c f joined ");
	x[2]->act = [&] { root._mcDestroyChilds(1); };
	root._mcDispatchMsg(0, 0, 0, nullptr, nullptr, 0);
	EXPECT_FALSE(root._mcHasChilds());
	elsewhere._mcDestroy();
}

TEST_F(ManagedObject, CyclesOfEveryKindAreRefusedHoweverManyWaysLeadUp) {
	auto *a = add("a"), *b = add("b"), *c = add("c");
	EXPECT_EQ(a->_mcAttach(b) + b->_mcAttach(c), 2);
	EXPECT_EQ(b->_mcAttach(a) + c->_mcAttach(a), 0);
	EXPECT_EQ(a->_mcSetParent(c), kQorFailure);
	EXPECT_EQ(c->_mcDetach(a) + a->_mcDetach(b) + b->_mcAttach(a), 2);
	delete c; // leaves the list of b, too
	EXPECT_EQ(childrenOf(*b), "a ");
	std::vector<Cmc> nodes(120); // each pair attached to the pair above: 2^60 ways up
	for (std::size_t i = 2; i < nodes.size(); ++i)
		EXPECT_EQ(nodes[i - 2 - i % 2]._mcAttach(&nodes[i]) + nodes[i - 1 - i % 2]._mcAttach(&nodes[i]), 2);
	EXPECT_EQ(nodes.back()._mcAttach(&nodes[0]), 0);
}

TEST_F(ManagedObject, DeepTreesCostNoStackAndLongListsNoTime) {
	constexpr int kMany = 150'000; // with each step linear, some hundred seconds
	Cmc* last = &root;
	for (int i = 0; i < kMany; ++i) last = add("deep", last);
	last->setname("last");
	EXPECT_EQ(root._mcDispatchMsg(9, 0, 0, nullptr, nullptr, 0) + root._mcUnselectAll(nullptr), 0);
	EXPECT_EQ(root._mcFindByNameAndType("last", "Cmc", 0), last);
	eqorMC_SEQHDR header;
	EXPECT_EQ(root._mcfillseq(&header), kMany + 1);
	std::free(header.mItems);
	root._mcDestroy();
	for (int i = 0; i < kMany; ++i) add(("n" + std::to_string(i % (kMany - 9))).c_str());
	for (int i = 0; i < kMany - 9; ++i)
		ASSERT_EQ(root._mcGetChildByName(("n" + std::to_string(i)).c_str()), root._mcGetChild(i));
	auto* third = root._mcGetChild(3);
	third->setname("renamed");
	EXPECT_EQ(root._mcGetChildByName("n3"), root._mcGetChild(kMany - 6)); // the second of that name
	EXPECT_EQ(root._mcGetChildByName("renamed"), third);
	root._mcMoveChild(root._mcGetChild(kMany - 1), 0); // a second "n8", in front of the other now
	EXPECT_EQ(root._mcGetChildByName("n8"), root._mcGetChild(0));
	delete root._mcGetChild(0);
	EXPECT_TRUE(root._mcGetChildByName("n8") == root._mcGetChild(8) && !root._mcGetChildByName("n3", nullptr, 1));
	new Camera(&root, "n8"); // of another type
	EXPECT_TRUE(root._mcGetChildByNameAndType("n8", "Camera")->istype("Camera"));
}

TEST_F(ManagedObject, FillVerdicts) {
	auto* a = new Camera(&root, "a");
	add("x", a);
	add("b");
	// the object, the verdict on it, the result, the sequence
	std::istringstream cases(
	    "a 0 4 root0a1x2b1 a 1 3 root0x2b1 a 2 2 root0b1 a 3 3 root0a1b1 root 2 0 - root 3 0 root0");
	std::string name, sequence;
	int verdict, result;
	auto* header = Cmc::_mcAllocSeqHdr(0);
	while (cases >> name >> verdict >> result >> sequence) {
		Cmc::_mcInitSeqHdr(header);
		header->mUser = &name;
		header->mUserValue = verdict;
		header->mCallback = [](eqorMC_SEQHDR* h, Cmc* object) {
			return *static_cast<std::string*>(h->mUser) == object->getname() ? static_cast<int>(h->mUserValue) : 0;
		};
		EXPECT_EQ(root._mcfillseq(header), result);
		std::string filled = header->mCount ? "" : "-";
		for (int i = 0; i < header->mCount; ++i)
			filled += header->mItems[i].mObject->getname() + std::to_string(header->mItems[i].mDepth);
		EXPECT_EQ(filled, sequence) << name << verdict;
	}
	Cmc::_mcInitSeqHdr(header);
	header->mContext = "lab";
	header->mType = "Cmc"; // no object passes both
	for (int i = 0; i < 1997; ++i) add(nullptr, a);
	EXPECT_EQ(root._mcfillseq(header), 0);
	header->mContext = nullptr;
	EXPECT_EQ(root._mcfillseq(header), 2000);
	EXPECT_EQ(header->mCapacity, 2000);
	Cmc::_mcFreeSeqHdr(header);
}

TEST_F(ManagedObject, LogLines) {
	Camera camera;
	core_test::LogLines log;
	camera._mclog("%d%% of %s", 5, "%s%n");
	for (int level = 0; level < 7; ++level) camera._mclog(level, "x");
	std::string expected = "[Camera] <Cam> : 5% of %s%n\n";
	for (const char* prefix : {"", "[BEGIN] ", "[ END ] ", "[ERROR] ", "[WARNING] ", "[OK] ", ""})
		expected += prefix + std::string("[Camera] <Cam> : x\n");
	EXPECT_EQ(log.take(), expected);
	camera.setname(nullptr);
	camera._mclog("x");
	camera._mclog(4, "%s", std::string(9000, 'y').c_str());
	EXPECT_EQ(log.take(), "[Camera] : x\n[WARNING] [Camera] : " + std::string(4095, 'y') + "\n");
	Cmc* last = &root;
	expected = "root (Cmc)\n";
	for (size_t level = 1; level <= 65; ++level) {
		last = add("child", last);
		expected += std::string(4 * std::min<size_t>(level, 63), ' ') + "child (Cmc)\n";
	}
	root._mclogtree();
	EXPECT_EQ(log.take(), expected);
}

} // namespace
