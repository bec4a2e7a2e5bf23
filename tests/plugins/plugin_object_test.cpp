#include "test_support.h"

#include <tuple>

TEST(PlugInObject, VerboseCommandsAndReplies) {
	using Object = CqorSIO_Object;
	static float number;
	static int integer;
	static char text[kQorSioValueSize], single[kQorSioValueSize];
	static const auto open = [](Object& o) { return o.piVerboseSingleOP("open", nullptr); };
	// Name, call, the command it sends, the reply, the result.
	static const std::tuple<const char*, int (*)(Object&), const char*, const char*, int> cases[] = {
	    {"operation", open, "open,", "open,0", 0},
	    {"its argument", [](Object& o) { return o.piVerboseSingleOP("go", "5"); }, "go,5", "x,y,go, 3 ,go,4", 3},
	    {"key twice", open, "open,", "open,open,7", 0},
	    {"no key", open, "open,", "OPEN,0", kFailure},
	    {"no value", open, "open,", "open", kFailure},
	    {"empty value", open, "open,", "open,,0", kFailure},
	    {"empty reply", open, "open,", "", kFailure},
	    {"set integer", [](Object& o) { return o.piVerboseSetInt32("k", -100); }, "set,k,-100", "k,0", 0},
	    {"set float", [](Object& o) { return o.piVerboseSetFloat32("k", 2.5f); }, "set,k,2.500000", "k,-4", -4},
	    {"set text", [](Object& o) { return o.piVerboseSetString("k", "C:\\n, %s"); }, "set,k,\"C:\\n, %s\"", "k,0", 0},
	    {"get integer", [](Object& o) { return o.piVerboseGetInt32("k", &integer); }, "get,k", "k, -12abc", 0},
	    {"get float", [](Object& o) { return o.piVerboseGetFloat32("k", &number); }, "get,k", "k,2.25e1", 0},
	    {"get text", [](Object& o) { return o.piVerboseGetString("k", text); }, "get,k", "k,\"a,\\\"b%n\\\\\"", 0},
	    {"single value", [](Object& o) { return o.piVerboseGetSingleValue("k", single); }, "get,k", "j,k,x", 0},
	};
	for (const auto& [name, call, command, reply, result] : cases) {
		SCOPED_TRACE(name);
		FakeDevice device;
		device.reply = reply;
		Object object;
		ASSERT_EQ(object.piAccept(&device, &FakeDevice::function), 0);
		EXPECT_EQ(call(object), result);
		EXPECT_EQ(device.commands, std::vector<std::string>{command});
		device.results[qorSIO_OBJ_COMMAND] = 1;
		EXPECT_EQ(call(object), kFailure) << "a refusal counts before the reply is read";
	}
	EXPECT_TRUE(integer == -12 && number == 22.5f && std::string(single) == "x");
	EXPECT_STREQ(text, "a,\"b%n\\");
}

TEST(PlugInObject, KeepsToTheSizesOfTheBoundary) {
	FakeDevice device;
	CqorSIO_Object object;
	LogCapture log;
	ASSERT_EQ(object.piAccept(&device, &FakeDevice::function), 0);
	char reply[QOR_SIO_REPLY_SIZE];
	const std::string longest(599, 'x');
	EXPECT_EQ(object.piVerboseCmd(reply, "%s", longest.c_str()) | object.piVerboseCmd(nullptr, "x%%"), 0);
	EXPECT_EQ(object.piVerboseCmd(reply, "%sx", longest.c_str()), kFailure);
	EXPECT_EQ(device.commands, (std::vector<std::string>{longest, "x%"})) << "a cut command is never sent";
	EXPECT_TRUE(log.has("Command is longer than 599 characters"));

	char value[5000];
	for (const size_t room : {size_t(kQorSioValueSize), sizeof(value)}) {
		const size_t most = std::min<size_t>(room - 1, QOR_SIO_REPLY_SIZE - 1 - 2);
		for (const size_t length : {most, most + 1}) {
			device.reply = "k," + std::string(length, 'v');
			const int result = room == sizeof(value) ? object.piVerboseGetString("k", value, room)
			                                         : object.piVerboseGetString("k", value);
			EXPECT_EQ(result, length == most ? 0 : kFailure) << length << ", never cut";
			EXPECT_EQ(std::strlen(value), most);
		}
	}
	EXPECT_TRUE(log.has("Reply is longer than 4095 characters"));

	int number = 0;
	char small[8];
	device.terminates = false; // who leaves it out gets no leftovers
	for (const std::string text : {"k,55555", "k,5"}) {
		device.reply = text;
		EXPECT_TRUE(object.piVerboseGetInt32("k", &number) == 0 && object.piVerboseCmd(small, "x") == 0);
		EXPECT_TRUE("k," + std::to_string(number) == text && text == small) << number;
	}
}

TEST(PlugInObject, NeedsBothHalvesOfAPlugIn) {
	FakeDevice device;
	device.results[qorSIO_OBJ_ATTACH] = 2;
	CqorSIO_Object object;
	const auto event = [](void* to) { return CqorSIO_Object::_piObjCB(to, 40010, 0, 0, nullptr, nullptr); };
	for (const int refused : {object.piFunc(1, 0, 0, nullptr, nullptr), object.piVerboseSingleOP("open", ""),
	         object.piAccept(nullptr, &FakeDevice::function), object.piAccept(&device, nullptr),
	         object.piAccept(&device, &FakeDevice::function), event(nullptr), event(&device)})
		EXPECT_EQ(refused, kFailure);
	EXPECT_EQ(event(&object), 0);
}
