// Blocks from outside. The checks decide what the classes take. With its length put right,
// a block is then given to every function although it may not be sound: none may leave it.
#include "qor/data/variable_set.h"

#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
	CqorDVar_DataSet schema;
	CqorDVar_ValueSet values;
	if (values.CopyFromBlock(data, size) != 0 && schema.CopyFromBlock(data, size) == 0)
		values.AllocFromDataSet(&schema, "made");
	for (int i = 0; auto* value = values.GetByIndex(i); ++i) {
		char out[16];
		for (int at = -1; at < value->mSize / 4 + 2; ++at) values.varSetFloat32(value->mID, at, 1, 2);
		values.varStrFillFromString(value->mID, "%*d", value->mSize + 2, i);
		values.varStrGet(value->mID, out, sizeof out);
	}
	auto* vs = values.GetBlock();
	if (vs && qorDVar_ValueSetCheck(vs, static_cast<size_t>(vs->mTotalSize)) != 0) std::abort(); // still sound
	if (size < sizeof(*vs)) return 0;

	vs = static_cast<qorDVar_VALUESET*>(std::memcpy(std::malloc(size), data, size));
	vs->mTotalSize = static_cast<int32_t>(size);
	auto* set = static_cast<qorDVar_DATASET*>(std::memcpy(std::malloc(size), data, size));
	set->mCount = static_cast<int32_t>((size - sizeof(*set)) / sizeof(qorDVar_DATATYPE));
	for (int i = 0; auto* definition = qorDVar_DataSetGetVarPtr(set, i); ++i) definition->mSize %= 1024; // for speed
	qorDVar_VALUESET* other = qorDVar_ValueSetAlloc(set, "other");
	qorDVar_ValueSet_UpdateFromSubSet(vs, other);
	for (int i = 0; auto* value = qorDVar_ValueSetGetVarPtr(vs, i); ++i) {
		if (void* bytes = qorDVar_ValueSetGetVarValuePtr(vs, value)) std::memset(bytes, 7, value->mSize);
		qorDVar_ValueSet_FillStrFromFile(vs, value->mID, "/dev/null");
		if (i < 8) qorDVar_ValueSetAppendCopyValue(&other, vs, value->mID);
	}
	qorDVar_ValueSet_UpdateFromSubSet(other, vs);
	qorDVar_ValueSetHdr_Debug(vs, set);
	qorDVar_DataSetAddVar(&set, "added", "", 13, 2, 0, 0, "", "");
	void* const blocks[] = {vs, set, other};
	for (void* block : blocks) std::free(block);
	return 0;
}
