#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>

namespace {

/// With QOR_TEST_LOCALE set, the tests run as in a host that has set this locale: one whose
/// decimal point is a comma.
struct HostLocale : testing::Environment {
	void SetUp() override {
		const char* name = std::getenv("QOR_TEST_LOCALE");
		if (!name) return;
		ASSERT_TRUE(std::setlocale(LC_ALL, name)) << "the C library has no locale " << name;
		char text[8];
		std::snprintf(text, sizeof text, "%.1f", 2.5);
		ASSERT_STREQ(text, "2,5");
	}
};

[[maybe_unused]] auto* const theHostLocale = testing::AddGlobalTestEnvironment(new HostLocale);

} // namespace
