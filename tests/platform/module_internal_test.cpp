#include "qor/platform/folder.h"
#include "qor/platform/machine.h"
#include "qor/platform/module.h"
#include "qor/platform/window.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

namespace {

using namespace platform;

TEST(Module, LoadsAndFindsExports) {
	const bool windows = kPathSeparator == '\\';
	EXPECT_STREQ(kModuleExtension, windows ? "DLL" : "so");
	ModuleHandle module = loadModule(windows ? "kernel32.dll" : "libm.so.6");
	ASSERT_NE(module, nullptr);
	EXPECT_NE(findExport(module, windows ? "Sleep" : "cos"), nullptr);
	EXPECT_EQ(findExport(module, "no_export_of_that_name"), nullptr);
	EXPECT_EQ(findExport(module, nullptr), nullptr);
	EXPECT_EQ(findExport(nullptr, "cos"), nullptr);
	unloadModule(module);
	unloadModule(nullptr);
}

TEST(Module, Failures) {
	test_support::TempFolder folder;
	const std::string missing = folder.path("none.") + kModuleExtension;
	for (const char* path : {missing.c_str(), "none_of_that_name", "", static_cast<const char*>(nullptr)}) {
		setLastError(0);
		EXPECT_EQ(loadModule(path), nullptr);
		EXPECT_EQ(lastError(), 126u);
	}
	const std::string text = folder.path("text.") + kModuleExtension;
	test_support::writeFile(text, "not a library");
	EXPECT_EQ(loadModule(text.c_str()), nullptr);
	EXPECT_NE(lastError(), 0u);
}

TEST(Window, MissingOnes) {
	EXPECT_FALSE(windowExists(nullptr));
	EXPECT_FALSE(windowExists(reinterpret_cast<HWND>(uintptr_t{0x7654320})));
	EXPECT_FALSE(postToWindow(nullptr, 1124, nullptr, nullptr));
	EXPECT_FALSE(postToWindow(reinterpret_cast<HWND>(uintptr_t{0x7654320}), 1124, nullptr, nullptr));
}

} // namespace
