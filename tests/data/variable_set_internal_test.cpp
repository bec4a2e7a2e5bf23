#include <qor/data/variable_set.h>
#include <qor/platform/faults.h>

#include <gtest/gtest.h>

TEST(VariableSetFaults, WithoutMemorySetsStayAndAreWalked) {
	CqorDVar_DataSet schema;
	CqorDVar_ValueSet values;
	schema.Alloc("set");
	for (char id[] = "a"; id[0] <= 'p'; ++id[0]) schema.AddVarStr(id, "", 1, "", "");
	platform::armFault(platform::FaultPoint::memory, 2); // the index, not the block
	EXPECT_TRUE(values.AllocFromDataSet(&schema, "") == 0 && values.GetByID("p") == values.GetByIndex(15));
	platform::armFault(platform::FaultPoint::memory, 1);
	EXPECT_TRUE(!schema.AddVarStr("new", "", 1, "", "") && schema.GetBlock()->mCount == 16);
	platform::armFault(platform::FaultPoint::memory, 0);
}
