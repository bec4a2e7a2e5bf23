#include <gtest/gtest.h>
#include <qor/platform/faults.h>
#include <qor/storage/image_cache.h>

TEST(ImageCacheFaults, EachAllocationMayFail) {
	for (int nth = 1, failed = 1; failed; ++nth) {
		CqorICachePageMan manager;
		manager.Create(1);
		platform::armFault(platform::FaultPoint::memory, nth);
		CqorICachePage *first = manager.Add(1000), *second = manager.Add(900);
		const CqorICachePage* grown = manager.BorrowPage(1, 2000, CqorICachePageMan::kGrowPages);
		manager.ReleasePage(first);
		failed = platform::faultCalls(platform::FaultPoint::memory) >= nth;
		platform::armFault(platform::FaultPoint::memory, 0);
		EXPECT_EQ(manager.GetCount(), (first != nullptr) + (second != nullptr));
		EXPECT_TRUE(
		    !first || !second || grown == (first->GetSize() == 2000 ? first : second)); // the next when one fails
		EXPECT_NE(manager.Add(1000), nullptr);
	}
}
