#include "test_support.h"

TEST(PlugInObject, VerboseCommandsAndReplies) {
	using Object = CqorSIO_Object;
	static float number;
	static int integer;
	static char text[kQorSioValueSize];
	static const struct {
		const char* name;
		int (*call)(Object&);
		const char* command;
		const char* reply;
		int result;
	} cases[] = {
	    {"operation", [](Object& o) { return o.piVerboseSingleOP("open", nullptr); }, "open,", "open,0", 0},
	    {"its argument", [](Object& o) { return o.piVerboseSingleOP("go", "5"); }, "go,5", "x,y,go, 3 ,go,4", 3},
	    {"key twice", [](Object& o) { return o.piVerboseSingleOP("a", ""); }, "a,", "a,a,7", 0},
	    {"no key", [](Object& o) { return o.piVerboseSingleOP("open", ""); }, "open,", "OPEN,0", kFailure},
	    {"no value", [](Object& o) { return o.piVerboseSingleOP("open", ""); }, "open,", "open", kFailure},
	    {"empty value", [](Object& o) { return o.piVerboseSingleOP("open", ""); }, "open,", "open,,0", kFailure},
	    {"empty reply", [](Object& o) { return o.piVerboseSingleOP("open", ""); }, "open,", "", kFailure},
	    {"set integer", [](Object& o) { return o.piVerboseSetInt32("exposure", -100); }, "set,exposure,-100",
	        "exposure,0", 0},
	    {"other key", [](Object& o) { return o.piVerboseSetInt32("exposure", 1); }, "set,exposure,1", "gain,0",
	        kFailure},
	    {"set float", [](Object& o) { return o.piVerboseSetFloat32("k", 2.5f); }, "set,k,2.500000", "k,-4", -4},
	    {"set text", [](Object& o) { return o.piVerboseSetString("k", "C:\\new, %s"); }, "set,k,\"C:\\new, %s\"", "k,0",
	        0},
	    {"get integer", [](Object& o) { return o.piVerboseGetInt32("k", &integer); }, "get,k", "k, -12abc", 0},
	    {"get float", [](Object& o) { return o.piVerboseGetFloat32("k", &number); }, "get,k", "k,2.25e1", 0},
	    {"get text", [](Object& o) { return o.piVerboseGetString("k", text); }, "get,k", "k,\"a,\\\"b%n\\\\\"", 0},
	    {"single value", [](Object& o) { return o.piVerboseGetSingleValue("k", text); }, "get,k", "j,k,x", 0},
	};
	for (const auto& c : cases) {
		SCOPED_TRACE(c.name);
		FakeDevice device;
		device.answer = [&](const std::string&) { return c.reply; };
		Object object;
		ASSERT_EQ(object.piAccept(&device, &FakeDevice::function), 0);
		EXPECT_EQ(c.call(object), c.result);
		EXPECT_EQ(device.commands, std::vector<std::string>{c.command});
		device.result = 1;
		EXPECT_EQ(c.call(object), kFailure) << "a refusal counts before the reply is read";
	}
	EXPECT_EQ(integer, -12);
	EXPECT_EQ(number, 22.5f);
	EXPECT_STREQ(text, "x");
}

TEST(PlugInObject, KeepsToTheSizesOfTheBoundary) {
	FakeDevice device;
	CqorSIO_Object object;
	ASSERT_EQ(object.piAccept(&device, &FakeDevice::function), 0);
	char reply[QOR_SIO_REPLY_SIZE];
	const std::string longest(599, 'x');
	EXPECT_EQ(object.piVerboseCmd(reply, "%s", longest.c_str()), 0);
	EXPECT_EQ(object.piVerboseCmd(nullptr, "x%%"), 0);
	EXPECT_EQ(device.commands, (std::vector<std::string>{longest, "x%"}));
	LogLines log;
	EXPECT_EQ(object.piVerboseCmd(reply, "%sx", longest.c_str()), kFailure);
	EXPECT_EQ(device.commands.size(), 2u) << "a cut command is never sent";
	EXPECT_TRUE(log.has("Command is longer than 599 characters"));

	const auto valueOf = [&](size_t length) {
		device.answer = [=](const std::string&) { return "k," + std::string(length, 'v'); };
		char value[kQorSioValueSize] = "old";
		const int result = object.piVerboseGetString("k", value);
		return result == 0 ? std::string(value).size() : 0;
	};
	EXPECT_EQ(valueOf(511), 511u);
	EXPECT_EQ(valueOf(512), 0u) << "never cut";
	char bounded[5000];
	device.answer = [](const std::string&) { return "k," + std::string(4093, 'v'); };
	EXPECT_EQ(object.piVerboseGetString("k", bounded, sizeof bounded), 0);
	device.answer = [](const std::string&) { return "k," + std::string(4094, 'v'); };
	EXPECT_EQ(object.piVerboseGetString("k", bounded, sizeof bounded), kFailure);
	EXPECT_TRUE(log.has("Reply is longer than 4095 characters"));
}

TEST(PlugInObject, NeedsBothHalvesOfAPlugIn) {
	FakeDevice device;
	CqorSIO_Object object;
	EXPECT_EQ(object.piFunc(1, 0, 0, nullptr, nullptr), kFailure);
	EXPECT_EQ(object.piVerboseSingleOP("open", ""), kFailure);
	EXPECT_EQ(object.piAccept(nullptr, &FakeDevice::function), kFailure);
	EXPECT_EQ(object.piAccept(&device, nullptr), kFailure);
	device.attachResult = 2;
	EXPECT_EQ(object.piAccept(&device, &FakeDevice::function), kFailure);
	EXPECT_EQ(CqorSIO_Object::_piObjCB(&object, 40010, 0, 0, nullptr, nullptr), 0);
	EXPECT_EQ(CqorSIO_Object::_piObjCB(nullptr, 40010, 0, 0, nullptr, nullptr), kFailure);
	EXPECT_EQ(CqorSIO_Object::_piObjCB(&device, 40010, 0, 0, nullptr, nullptr), kFailure);
}

TEST(PlugInObject, MayGoWhileItsPlugInReports) {
	for (int round = 0; round < 20; ++round) {
		auto camera = std::make_unique<CqorSIO_VideoCap>();
		void* const address = static_cast<CqorSIO_Object*>(camera.get());
		std::atomic<int> frames{0};
		camera->SetUserCallBack([](void* context, CqorSIO_VideoCap*, unsigned long, unsigned long, unsigned long, void*,
		                            void*) { return ++*static_cast<std::atomic<int>*>(context); },
		    &frames);
		qorSIO_VCAP_FRAME_INFO info{};
		std::thread plugIn([&] {
			while (CqorSIO_Object::_piObjCB(address, qorSIO_EVENT_DATA, 0, 0, &info, nullptr) == 0) {
			}
		});
		EXPECT_TRUE(eventually([&] { return frames > 3; }));
		camera.reset();
		plugIn.join();
	}
}
