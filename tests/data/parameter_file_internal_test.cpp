#include "qor/data/parameter_file.h"
#include "qor/platform/faults.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

TEST(ParameterFileWithoutMemory, HasWhatWasReadBefore) {
	std::string text;
	for (int i = 0; i < 10000; ++i) text += "<a id=x>";
	int depth = 0, nth = 0;
	for (int before = 0; depth < 10000 && nth < 100; before = std::exchange(depth, 0)) {
		CqorBXML document;
		platform::armFault(platform::FaultPoint::memory, ++nth);
		EXPECT_EQ(document.OpenFromBuffer(text.data(), 80000), nth == 1 ? 0x10000000 : 0);
		const auto* var = document.mRoot.AddVar("v", "1");
		std::unique_ptr<CqorBXML_Section> section(new CqorBXML_Section);
		if (section && document.mRoot.AddSection(section.get()) == 0) section.release()->AddVar("w", "2");
		platform::armFault(platform::FaultPoint::memory, 0);
		EXPECT_EQ(document.mRoot.mVarCount, var ? 1 : 0);
		for (auto* at = &document.mRoot; at->mChildCount > 0; at = at->mChildren[0]) ++depth;
		EXPECT_GE(depth, before) << nth;
	}
	EXPECT_GT(nth, 10);
}
