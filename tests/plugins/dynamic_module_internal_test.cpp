#include "support/faulty_file_system.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <qor/platform/faults.h>
#include <qor/plugins/dynamic_module.h>

TEST(DynamicModuleFaults, EachLeavesNoInformationAndItsMessage) {
	using Call = test_support::FaultyFileSystem::Call;
	const test_support::TempFolder folder;
	const uint32_t head[] = {0x78AAB1C0, 1000000, 1024, 5};
	test_support::writeFile(folder.path("file"),
	    std::string(1000000, 0).append(reinterpret_cast<const char*>(head), 16) + std::string(2000, 0));
	test_support::FaultyFileSystem faulty;
	CqorDynamicModule module;
	module.SetFilePath(folder.path("file").c_str());
	const char* const messages[] = {"MEMORY ON PASS1", "MEMORY ON PASS1", "MEMORY ON PASS2", "CANNOT OPEN FILE"};
	for (int nth = 1; nth <= 11; ++nth) {
		test_support::LogCapture log;
		if (nth <= 3) platform::armFault(platform::FaultPoint::memory, nth);
		if (nth >= 4) faulty.fail(nth == 4 ? Call::open : Call::read, nth == 4 ? 1 : nth - 4);
		EXPECT_TRUE(module.RetrieveDMInfo() != 0 && !module.GetInformation()) << nth;
		EXPECT_TRUE(log.has(nth <= 4 ? messages[nth - 1] : "CANNOT READ DATA (1002016 Bytes)")) << nth;
	}
	EXPECT_EQ(module.RetrieveDMInfo(), 0);
}
