#include <qor/qor.h>

#include <gtest/gtest.h>

#include <algorithm>

namespace {

template <class Type>
void expectSame(const char* name, const Type& bound, Type value) {
	EXPECT_EQ(bound, value) << name;
	EXPECT_EQ(std::max(bound, value), value) << name;
}

// A host may take every constant by reference, as std::min does. Without optimisation each one
// then needs an address, and a member of an exported class would have it in the DLL.
TEST(PublicConstants, BindByReference) {
	int count = 0;
#define BIND(name)                                                                                                     \
	expectSame(#name, name, name);                                                                                     \
	++count;
#include "public_constants.inc"
#undef BIND
	EXPECT_GT(count, 50);
}

} // namespace
