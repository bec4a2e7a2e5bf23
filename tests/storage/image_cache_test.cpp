#include "support/log_capture.h"

#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <qor/storage/image_cache.h>
#include <random>
#include <thread>

namespace {

constexpr uint64_t kMb = uint64_t{1} << 20;
constexpr uint32_t kGrow = CqorICachePageMan::kGrowPages, kDelete = CqorICachePageMan::kDeletePages;

eqorICACHEPAGEMAN_MEMSTATUS statusOf(CqorICachePageMan& manager) {
	eqorICACHEPAGEMAN_MEMSTATUS status;
	return manager.GetMemStatus(&status), status;
}

TEST(ImageCache, BudgetNeverOverflows) {
	CqorICachePageMan manager;
	for (const uint32_t megabytes : {0u, 0x0FFFFFFFu, 0x10000000u, 0xFFFFFFFFu}) {
		manager.Create(megabytes);
		EXPECT_EQ(statusOf(manager).mFreeBytes, (megabytes ? megabytes : 0x0FFFFFFFu) * kMb);
		EXPECT_EQ(manager.BorrowPage(1, ~uint64_t{0}, kGrow | kDelete), nullptr);
	}
	manager.Create(4);
	EXPECT_TRUE(!manager.Add(4 * kMb + 1) && manager.BorrowPage(1, 3 * kMb, kDelete) && manager.Add(kMb));
	manager.Create(2); // the pages exceed it: nothing is free
	EXPECT_EQ(manager.BorrowPage(2, 2 * kMb, kGrow | kDelete), nullptr);
	EXPECT_EQ(statusOf(manager).mFreeBytes + manager.GetCount(), 2u); // nothing deleted in vain
}

TEST(ImageCache, WhatLoansGrowthAndDeletionLeaveBehind) {
	test_support::LogCapture log;
	CqorICachePageMan manager, other;
	manager.Create(16);
	CqorICachePage *four = manager.Add(4 * kMb), *two = manager.Add(2 * kMb);
	EXPECT_EQ(manager.BorrowPage(0, kMb, kDelete), nullptr); // 0 marks free pages
	EXPECT_EQ(manager.BorrowPage(7, kMb, 0), two);
	two->SetUsedBytes(9);
	other.ReleasePage(two);
	EXPECT_EQ(statusOf(manager).mUsedBytes + two->GetBorrower(), 16u);
	manager.ReleasePage(two), manager.ReleasePage(two), manager.ReleasePage(nullptr);
	EXPECT_EQ(two->GetBorrower() + two->GetUsedBytes(), 0u);
	std::memset(four->GetMemory(), 0x5A, 4 * kMb);
	ASSERT_EQ(manager.BorrowPage(8, 5 * kMb, kGrow), four);
	EXPECT_EQ(static_cast<char*>(four->GetMemory())[4 * kMb - 1], 0x5A);
	ASSERT_NE(manager.BorrowPage(9, 3 * kMb, kDelete), nullptr); // deletes one, room or not
	EXPECT_TRUE(
	    manager.GetCount() == 2 && log.lines.size() == 1 && log.has("[CqorICachePageMan   ] > Found one to delete..."));
	EXPECT_TRUE(manager.Add(kMb) && manager.Add(kMb));
	appLogSetFunc([&](const char*) {
		std::thread([&] { manager.ReleasePage(manager.BorrowPage(3, 1, 0)); }).join(); // nothing is locked meanwhile
		return manager.DeletePage(manager.Get(2)) == 0;                                // the one that was found
	});
	EXPECT_NE(manager.BorrowPage(9, 7 * kMb, kDelete), nullptr);
	EXPECT_EQ(manager.Destroy() + manager.getchildcount(), 0);
}

TEST(ImageCache, RefusalsChangeNothing) {
	CqorICachePageMan manager, other;
	manager.Create(4), other.Create(4);
	CqorICachePage* page = manager.Add(kMb);
	EXPECT_EQ(other.Remove(page) & other.DeletePage(page) & other.Remove(nullptr), 0x10000000);
	EXPECT_EQ(manager.GetMemStatus(nullptr) & CqorICachePageMan::FreeMem(nullptr), 0x10000000);
	EXPECT_TRUE(page->GetMemory() && manager.GetCount() == 1 && page->GetManager() == &manager);
	other.attach(page); // both have it
	EXPECT_TRUE(manager.BorrowPage(5, kMb, 0) == page && other.GetCount() == 1 && !other.BorrowPage(6, 1, 0));
	manager.ReleasePage(page);
	ASSERT_EQ(other.GetCount() + manager.Remove(page), 1);
	EXPECT_EQ(other.BorrowPage(6, 1000, 0), nullptr); // it holds no memory any more
	EXPECT_EQ(page->Create(&other, 4096) + other.BorrowPage(6, 1000, 0)->GetBorrower(), 6u);
	EXPECT_EQ(page->Create(nullptr, 4096) & page->Create(&other, 0), 0x10000000);
	EXPECT_TRUE(!page->GetMemory() && !page->GetManager() && statusOf(other).mTotalBytes == 0);
}

/// The rules, followed child by child.
struct Model {
	struct Page {
		CqorICachePage* page; // null: the new one
		uint64_t size;
		bool free;
	};
	explicit Model(const CqorICachePageMan& manager) {
		for (int i = 0; i < manager.getchildcount(); ++i)
			if (auto* page = dynamic_cast<CqorICachePage*>(manager.getchild(i)); page && page->istype("CqorICachePage"))
				pages.push_back({page, page->GetSize(), page->GetBorrower() == 0});
	}
	uint64_t sum(bool lentOnly) const {
		uint64_t bytes = 0;
		for (const Page& page : pages) bytes += lentOnly && page.free ? 0 : page.size;
		return bytes;
	}
	/// @return the index of the page to be lent, -1 for none.
	int borrow(uint64_t size, uint32_t flags, uint64_t budget) {
		const auto room = [&] { return budget > sum(false) ? budget - sum(false) : 0; };
		int best = -1;
		for (int i = 0; i < count(); ++i)
			if (pages[i].free && pages[i].size >= size && (best < 0 || pages[i].size < pages[best].size)) best = i;
		if (best >= 0) return best;
		for (int i = 0; flags & kGrow && i < count(); ++i)
			if (pages[i].free && pages[i].size + room() >= size) return pages[i].size = size, i;
		if (!(flags & kDelete) || budget < size + sum(true)) return -1;
		const auto isFree = [](const Page& page) { return page.free; };
		const auto first = [&] { return std::find_if(pages.begin(), pages.end(), isFree); };
		for (auto page = first(); page != pages.end(); page = size > room() ? first() : pages.end()) pages.erase(page);
		if (size > room() || size == 0) return -1;
		pages.push_back({nullptr, size, true});
		return count() - 1;
	}
	int count() const { return static_cast<int>(pages.size()); }
	std::vector<Page> pages;
};

TEST(ImageCache, AnswersAsTheRulesDoWhateverHappensToTheChildren) {
	std::mt19937 random(7);
	const auto pick = [&](size_t n) { return static_cast<int>(random() % n); };
	for (const int start : {3, 40, 400}) {
		CqorICachePageMan manager, second;
		qor impostor;
		manager.Create(4), second.Create(4);
		for (int i = 0; i < start; ++i) manager.Add((1 + pick(40)) * 64);
		const std::function<void(CqorICachePage*)> changes[] = {
		    [&](CqorICachePage* page) { page->setparent(&manager); }, // to the end
		    [&](CqorICachePage* page) { page->Create(&manager, (1 + pick(40)) * 4096); },
		    [&](CqorICachePage* page) { manager.Remove(page), delete page; },
		    [&](CqorICachePage* page) { page->settype("Else"); },
		    [&](CqorICachePage* page) { second.attach(page), second.BorrowPage(3, 1 + pick(4096), kGrow); },
		    [&](CqorICachePage* page) { second.ReleasePage(page), second.detach(page); },
		    [&](CqorICachePage*) { impostor.settype(pick(2) ? "CqorICachePage" : ""), manager.attach(&impostor); },
		    [&](CqorICachePage*) { (new CqorICachePage)->setparent(&manager); },
		};
		for (int step = 1; step < 1500; ++step) {
			SCOPED_TRACE(step);
			Model model(manager);
			if (const int i = pick(start); i < model.count()) {
				ASSERT_EQ(manager.Get(i), model.pages[i].page);
				if (step % 2) manager.ReleasePage(model.pages[i].page);
				if (step % 7 == 0) changes[pick(std::size(changes))](model.pages[i].page);
			}
			model = Model(manager);
			const uint64_t size = pick(60) ? pick(45) * (pick(3) ? 512 : 4096) : pick(4 * kMb);
			const uint32_t flags = pick(4) ? pick(2) : pick(4);
			const int expected = model.borrow(size, flags, 4 * kMb);
			const CqorICachePage* page = manager.BorrowPage(step, size, flags);
			ASSERT_EQ(page, expected < 0 ? nullptr : manager.Get(expected));
			ASSERT_TRUE(manager.GetCount() == model.count() && statusOf(manager).mTotalBytes == model.sum(false));
		}
		for (int i = 0; i < manager.getchildcount(); ++i) manager.getchild(i)->settype("CqorICachePage");
	}
}

TEST(ImageCache, BorrowersShareATightBudget) {
	CqorICachePageMan manager;
	manager.Create(1);
	std::vector<std::thread> threads;
	for (unsigned owner = 1; owner <= 4; ++owner)
		threads.emplace_back([&manager, owner] {
			std::mt19937 random(owner);
			for (int i = 0; i < 1500; ++i) {
				const uint64_t size = 1 + random() % (kMb / 4);
				CqorICachePage* page = manager.BorrowPage(owner, size, random() % 4);
				if (!page) continue;
				std::memset(page->GetMemory(), 1, size); // two at once would be a race
				page->SetUsedBytes(size);
				EXPECT_EQ(page->GetBorrower(), owner);
				manager.ReleasePage(page);
			}
		});
	for (int i = 0; i < 200; ++i, std::this_thread::yield()) EXPECT_LE(statusOf(manager).mTotalBytes, kMb);
	for (auto& thread : threads) thread.join();
	EXPECT_EQ(statusOf(manager).mUsedBytes, 0u);
}

} // namespace
