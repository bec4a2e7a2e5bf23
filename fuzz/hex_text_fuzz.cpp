// What is decoded from any text, encoded and decoded once more, is the same.
#include "qor/data/variable_blocks.h"

#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
	constexpr int room = 64;
	const std::vector<char> text(data, data + size); // not terminated
	std::vector<char> bytes(room + 1), hex(2 * room + 1), again(room + 1);
	qorDVar_Value_DecodeFromHexString(bytes.data(), text.data(), static_cast<int>(text.size()), room);
	qorDVar_Value_MakeHexString(hex.data(), bytes.data(), room);
	qorDVar_Value_DecodeFromHexString(again.data(), hex.data(), 2 * room, room);
	if (bytes != again) std::abort();
	return 0;
}
