#include "core_test.h"
#include "qor/core/class_manager.h"

#include <memory>
#include <thread>

namespace {

int refuse(unsigned long, unsigned long, unsigned long, void*, void*) { return kQorFailure; }

TEST(ClassManager, FirstRegistrationWins) {
	auto owned = std::make_unique<CqorMCManager>();
	auto& manager = *owned;
	auto* first = manager.classAdd("Cmc", Cmc::qorMC__CLASSFUNC, "Device");
	ASSERT_TRUE(first && manager.classAdd("Cmc", refuse, nullptr) == first);
	EXPECT_STREQ(first->mBaseClass, "Device");
	EXPECT_STREQ(manager.classAdd("Never", refuse, nullptr)->mBaseClass, "Never");
	EXPECT_FALSE(manager.classAdd(nullptr, refuse, nullptr) || manager.classAdd("x", nullptr, nullptr));
	const std::string longer(64, 't'); // would answer for others if it were cut
	EXPECT_FALSE(manager.classAdd(longer.c_str(), refuse, nullptr));
	EXPECT_TRUE(manager.classGetCount() == 2 && manager.classGetByIndex(0) == first);
	EXPECT_FALSE(manager.classGetByIndex(2) || manager.classGetByIndex(-1) || manager.classFindByType("cmc"));
	EXPECT_FALSE(manager.classNew("Never") || manager.classNew("None") || manager.classNew(nullptr));
	Cmc* object = manager.classNew("Cmc");
	ASSERT_TRUE(object && !object->_mcGetParent());
	object->_mcSetParent(manager.GetRoot()); // which it outlives
	EXPECT_TRUE(object->_mcGetRoot()->isname("mcRoot"));
	owned.reset();
	EXPECT_EQ(object->_mcGetParent(), nullptr);
	delete object;
}

TEST(ClassManager, ThreadsRegisterEachTypeOnce) {
	CqorMCManager manager;
	std::vector<std::jthread> threads;
	for (int t = 0; t < 4; ++t)
		threads.emplace_back([&] {
			for (int i = 0; i < 50; ++i) {
				const auto type = "T" + std::to_string(i);
				EXPECT_EQ(manager.Lock(), 0); // for several calls
				auto* record = manager.classAdd(type.c_str(), refuse, nullptr);
				EXPECT_EQ(manager.Unlock(), 0);
				EXPECT_EQ(manager.classFindByType(type.c_str()), record);
				Cmc()._mclog("%d", qorMCGetManager()->classGetCount());
			}
		});
	threads.clear();
	EXPECT_EQ(manager.classGetCount(), 50);
	EXPECT_EQ(manager.Unlock(), kQorFailure);
}

} // namespace
