#pragma once

#include "qor/platform/machine.h"
#include "qor/platform/wait.h"

#include <memory>
#include <string>
#include <vector>

namespace platform {

constexpr uint32_t kLong = 60000; // ms; reached only by a fault

struct Closer {
	void operator()(WaitObject* handle) const { closeHandle(handle); }
};
using Owned = std::unique_ptr<WaitObject, Closer>;

/// One that no other test and no other process uses, fit for a command line.
inline std::string uniqueName() {
	static int number = 0;
	return "qor-test-" + std::to_string(processId()) + '-' + std::to_string(++number);
}

/// The names of a private and of a named object, which behave alike.
inline std::vector<std::string> privateAndNamed() { return {"", uniqueName()}; }

} // namespace platform
