#include "../base/status.h"
#include "variable_blocks.h"

#include <algorithm>

namespace {

constexpr char kDigits[] = "0123456789ABCDEF";

unsigned digit(char c) {
	if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
	return c >= 'A' && c <= 'F' ? static_cast<unsigned>(c - 'A') + 10 : 0;
}

} // namespace

int qorDVar_Value_MakeHexString(char* out, const void* data, int size) {
	if (!out || size < 0 || (!data && size > 0)) return kQorFailure;
	const auto* bytes = static_cast<const unsigned char*>(data);
	for (int i = 0; i < size; ++i) {
		*out++ = kDigits[bytes[i] >> 4];
		*out++ = kDigits[bytes[i] & 15];
	}
	*out = 0;
	return kQorSuccess;
}

int qorDVar_Value_DecodeFromHexString(void* out, const char* hex, int length, int maxOut) {
	if (!out || !hex || length < 0 || maxOut < 0) return kQorFailure;
	auto* bytes = static_cast<unsigned char*>(out);
	const char* end = std::find(hex, hex + length, '\0');
	const auto next = [&] { return hex < end ? digit(*hex++) : 0; };
	for (int pairs = std::min(length / 2, maxOut); pairs > 0; --pairs) {
		const unsigned high = next();
		*bytes++ = static_cast<unsigned char>(high << 4 | next());
	}
	return kQorSuccess;
}
