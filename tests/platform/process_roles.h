#pragma once

#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <string>

/// Tests between processes: a test program runs itself again with a role, which the other
/// process plays instead of the tests.
namespace test_support {

/// The result is the number of the first step that went wrong, or 0.
using Role = int (*)(const std::string& argument);

inline std::map<std::string, Role>& roles() {
	static std::map<std::string, Role> all;
	return all;
}

struct RoleOf {
	RoleOf(const char* name, Role role) { roles()[name] = role; }
};

class RolePlayer : public testing::Environment {
	void SetUp() override {
		const auto arguments = testing::internal::GetArgvs();
		if (arguments.size() == 3 && roles().count(arguments[1])) std::_Exit(roles()[arguments[1]](arguments[2]));
	}
};
inline const testing::Environment* const gRolePlayer = testing::AddGlobalTestEnvironment(new RolePlayer);

/// Runs another process in that role; the argument needs no quotes.
inline int runRole(const char* role, const std::string& argument) {
	return std::system(('"' + testing::internal::GetArgvs()[0] + "\" " + role + " " + argument).c_str());
}

} // namespace test_support
