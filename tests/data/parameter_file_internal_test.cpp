#include "qor/data/parameter_file.h"
#include "qor/platform/faults.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

TEST(ParameterFileWithoutMemory, HasWhatWasReadBefore) {
	std::string text;
	for (int i = 0; i < 10000; ++i) text += "<a id=x>";
	int before = 0;
	for (int nth = 1; nth < 40; ++nth) {
		CqorBXML document;
		platform::armFault(platform::FaultPoint::memory, nth);
		EXPECT_EQ(document.OpenFromBuffer(text.data(), 80000), nth == 1 ? 0x10000000 : 0);
		const auto* var = document.mRoot.AddVar("v", "1");
		std::unique_ptr<CqorBXML_Section> section(new CqorBXML_Section);
		if (section && document.mRoot.AddSection(section.get()) == 0) section.release()->AddVar("w", "2");
		platform::armFault(platform::FaultPoint::memory, 0);
		EXPECT_EQ(document.mRoot.mVarCount, var ? 1 : 0);
		int depth = 0;
		for (auto* at = &document.mRoot; at->mChildCount > 0; at = at->mChildren[0]) ++depth;
		// All of them when nothing failed, or a variable only.
		EXPECT_TRUE(depth == 10000 || depth >= std::exchange(before, depth)) << nth;
	}
	EXPECT_GT(before, 1000);
}

TEST(ParameterFileWithoutMemory, FindsSectionsAllTheSame) {
	std::string text = "<b></b>";
	for (int count = 1; count < 100; ++count, text += "<a></a>") {
		CqorBXML document;
		document.OpenFromBuffer(text.data(), static_cast<int>(text.size()));
		platform::armFault(platform::FaultPoint::memory, 1); // of some documents: the blocks are not all full
		EXPECT_EQ(document.FindSection("A", count - 2), count > 1 ? document.mRoot.mChildren[count - 1] : nullptr);
		platform::armFault(platform::FaultPoint::memory, 0);
	}
}
