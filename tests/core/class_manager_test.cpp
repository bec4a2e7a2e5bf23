#include "qor/core/class_manager.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

int refuse(unsigned long, unsigned long, unsigned long, void*, void*) { return kQorFailure; }

TEST(ClassManager, FirstRegistrationWins) {
	CqorMCManager manager;
	auto* first = manager.classAdd("Cmc", Cmc::qorMC__CLASSFUNC, "Device");
	ASSERT_TRUE(first);
	EXPECT_EQ(manager.classAdd("Cmc", refuse, nullptr), first);
	EXPECT_STREQ(first->mBaseClass, "Device");
	EXPECT_STREQ(manager.classAdd("Never", refuse, nullptr)->mBaseClass, "Never");
	EXPECT_FALSE(manager.classAdd(nullptr, refuse, nullptr) || manager.classAdd("x", nullptr, nullptr));
	EXPECT_TRUE(manager.classGetCount() == 2 && manager.classGetByIndex(0) == first);
	EXPECT_FALSE(manager.classGetByIndex(2) || manager.classGetByIndex(-1) || manager.classFindByType("cmc"));
	Cmc* object = manager.classNew("Cmc");
	ASSERT_TRUE(object && !object->_mcGetParent());
	delete object;
	EXPECT_FALSE(manager.classNew("Never") || manager.classNew("None") || manager.classNew(nullptr));
}

TEST(ClassManager, LongNamesNeverAnswerForOthers) {
	CqorMCManager manager;
	const std::string longest(63, 't'), longer(64, 't');
	ASSERT_TRUE(manager.classAdd(longest.c_str(), refuse, longer.c_str()));
	EXPECT_EQ(manager.classGetByIndex(0)->mBaseClass, longest);
	EXPECT_FALSE(manager.classFindByType(longer.c_str()) || manager.classAdd(longer.c_str(), refuse, nullptr));
}

TEST(ClassManager, ObjectsOutliveTheRoot) {
	Cmc child, attached;
	{
		CqorMCManager manager;
		ASSERT_TRUE(manager.GetRoot()->isname("mcRoot"));
		child._mcSetParent(manager.GetRoot());
		manager.GetRoot()->_mcAttach(&attached);
	}
	EXPECT_EQ(child._mcGetParent(), nullptr);
}

TEST(ClassManager, ThreadsRegisterEachTypeOnce) {
	CqorMCManager manager;
	std::vector<std::thread> threads;
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
	for (auto& thread : threads) thread.join();
	EXPECT_EQ(manager.classGetCount(), 50);
	EXPECT_EQ(manager.Unlock(), kQorFailure);
}

} // namespace
