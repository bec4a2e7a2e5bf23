#include "object_name_internal.h"

#include "../machine.h"

#include <cstring>
#include <string_view>

namespace platform::posix {
namespace {

constexpr size_t kNameLimit = 260;
constexpr uint32_t kPathNotFound = 3;
constexpr uint32_t kInvalidHandle = 6;
constexpr uint32_t kInvalidName = 123;
constexpr uint32_t kBadPath = 161;
constexpr uint32_t kNameTooLong = 206;
constexpr std::string_view kLocal = "Local\\", kGlobal = "Global\\";

const char* refuse(uint32_t error) {
	setLastError(error);
	return nullptr;
}

} // namespace

const char* objectName(const char* name) {
	const std::string_view text = name;
	if (text.size() >= kNameLimit) return refuse(kNameTooLong);
	if (text.front() == '\\') return refuse(kBadPath);
	const bool local = text.starts_with(kLocal), global = text.starts_with(kGlobal);
	const std::string_view rest = text.substr(local ? kLocal.size() : global ? kGlobal.size() : 0);
	if (rest.empty() || rest.front() == '\\') return refuse(kInvalidName);
	if (rest.find('\\') != rest.npos) return refuse(kPathNotFound);
	// These are the folders that the prefixes stand for.
	if (text == "Local" || text == "Global") return refuse(kInvalidHandle);
	return local ? name + kLocal.size() : name;
}

} // namespace platform::posix
