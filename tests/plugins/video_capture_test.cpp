#include "test_support.h"

#include <array>
#include <tuple>

namespace {

using Event = std::tuple<unsigned long, unsigned long, unsigned long, void*, void*>;

/// A camera bound to a played device; remembers what the host callback receives.
struct Camera : CqorSIO_VideoCap {
	FakeDevice device;
	std::vector<Event> events;
	std::atomic<bool> acknowledges{true};
	std::atomic<int> asked{0}; // for a change of the geometry

	Camera() {
		piAccept(&device, &FakeDevice::function);
		SetUserCallBack(&Camera::onEvent, this);
	}
	~Camera() override { piRetire(); }

	static int onEvent(void* context, CqorSIO_VideoCap* camera, unsigned long code, unsigned long a, unsigned long b,
	    void* p1, void* p2) {
		auto& self = *static_cast<Camera*>(context);
		EXPECT_EQ(camera, &self);
		if (code == QOR_SIO_HOST_GEOMETRY) {
			EXPECT_TRUE(self.isGeometryChanging());
			++self.asked;
			if (self.acknowledges) *static_cast<int*>(p1) = 1;
		}
		self.events.emplace_back(code, a, b, p1, p2);
		return 5;
	}
	int event(unsigned long code, unsigned long a = 0, unsigned long b = 0, void* p1 = nullptr, void* p2 = nullptr) {
		return _piObjCB(static_cast<CqorSIO_Object*>(this), code, a, b, p1, p2);
	}
	int state() {
		return isOnline() << 1 | isOpen() << 2 | isPrepared() << 3 | isAcquiring() << 4 | isRecording() << 5 |
		       isReading() << 6 | isPreview() << 7;
	}
};

} // namespace

TEST(VideoCapture, OperationsAndState) {
	// The command sent, and the state after success, from the state of the row before.
	static const std::tuple<int (*)(Camera&), const char*, int> cases[] = {
	    {[](Camera& c) { return c.cmdOpen(); }, "open,", 4},
	    {[](Camera& c) { return c.cmdAllocInternalBuffers(12); }, "allocbuffers,12", 4},
	    {[](Camera& c) { return c.cmdPrepare(); }, "prepare,", 4 + 8},
	    {[](Camera& c) { return c.cmdStart(); }, "start,", 4 + 8 + 16},
	    {[](Camera& c) { return c.cmdRecord(1) | c.cmdPreview(1); }, nullptr, 4 + 8 + 16 + 32 + 128},
	    {[](Camera& c) { return c.cmdStartRead(); }, nullptr, 4 + 8 + 16 + 32 + 64 + 128},
	    {[](Camera& c) { return c.cmdRecord(0); }, nullptr, 4 + 8 + 16 + 64 + 128},
	    {[](Camera& c) { return c.cmdPrepare(); }, "prepare,", 4 + 8 + 128},
	    {[](Camera& c) { return c.cmdRecord(1) | c.cmdStartRead(); }, nullptr, 4 + 8 + 32 + 64 + 128},
	    {[](Camera& c) { return c.cmdStop(); }, "stop,", 4 + 128},
	    {[](Camera& c) { return c.cmdReleaseInternalBuffers(); }, "releasebuffers,", 4 + 128},
	    {[](Camera& c) { return c.cmdPreview(0); }, nullptr, 4},
	    {[](Camera& c) { return c.cmdClose(); }, "close,", 0},
	};
	Camera camera;
	for (const auto& [call, command, state] : cases) {
		SCOPED_TRACE(command ? command : "bookkeeping");
		camera.device.commands.clear();
		const int before = camera.state();
		camera.device.status = 9;
		EXPECT_TRUE(!command || (call(camera) == 9 && camera.state() == before)) << "a failed one changes nothing";
		camera.device.status = 0;
		EXPECT_TRUE(call(camera) == 0 && camera.state() == state) << camera.state();
		EXPECT_EQ(camera.device.commands, std::vector<std::string>(command ? 2 : 0, command ? command : ""));
	}
}

TEST(VideoCapture, PropertiesAndTheirKeys) {
	Camera c;
	EXPECT_TRUE(c.getWidth() == 0 && c.getGain() == 0 && c.genICam_GetFloat32("F") == 0) << "failed gets";
	std::vector<double> expected;
	for (const char* key : {"!maxwidth", "!maxheight", "!width", "!height", "!x", "!y", "!exposure", "!minexposure",
	         "!maxexposure", "!gain", "!mingain", "!maxgain", "!framerate", "!minframerate", "!maxframerate",
	         "!framebytesize", "!gige_packet_size", "!genicam:int32:F", "!genicam:float32:F"}) {
		expected.push_back(static_cast<double>(expected.size()) + 7);
		c.device.values[key] = std::to_string(expected.size() + 6);
	}
	const auto list = [](auto... values) { return std::vector<double>{static_cast<double>(values)...}; };
	EXPECT_EQ(list(c.getMaxWidth(), c.getMaxHeight(), c.getWidth(), c.getHeight(), c.getX(), c.getY(), c.getExposure(),
	              c.getMinExposure(), c.getMaxExposure(), c.getGain(), c.getMinGain(), c.getMaxGain(), c.getFrameRate(),
	              c.getMinFrameRate(), c.getMaxFrameRate(), c.getFrameByteSize(), c.gige_getPacketSize(),
	              c.genICam_GetInt32("F"), c.genICam_GetFloat32("F")),
	    expected);

	c.device.commands.clear();
	EXPECT_EQ(c.setX(1) | c.setY(2) | c.setExposure(3) | c.setGain(4), 0);
	EXPECT_EQ(c.setFrameRate(5.5f) | c.gige_setPacketSize(6) | c.genICam_SetString("F", "v"), 0);
	EXPECT_EQ(c.genICam_SetInt32("F", 7) | c.genICam_SetFloat32("F", 0.25f) | c.genICam_Command("F"), 0);
	EXPECT_EQ(c.setWidth(8) | c.setHeight(9) | c.setROI(1, 2, 3, 4) | c.setROIex(1, 2, 3, 4, 5, 6), 0);
	EXPECT_EQ(c.genICam_SetInt32(std::string(2000, 'f').c_str(), 1), kFailure) << "too long: not sent";
	const std::vector<std::string> sent = {"set,!x,1", "set,!y,2", "set,!exposure,3", "set,!gain,4",
	    "set,!framerate,5.500000", "set,!gige_packet_size,6", "set,!genicam:str:F,\"v\"", "set,!genicam:int32:F,7",
	    "set,!genicam:float32:F,0.250000", "set,!genicam:cmd:F,\"\"", "set,!width,8", "set,!height,9",
	    "set,!roi,1,2,3,4", "set,!roiex,1,2,3,4,5,6"};
	EXPECT_EQ(c.device.commands, sent);

	c.device.values = {{"!pixformat", "Mono8"}, {"!genicam:str:F", "\"a, b\""}};
	char text[3][kQorSioValueSize] = {"old"};
	EXPECT_TRUE(c.getPixFormatConversion(text[0]) == kFailure && !*text[0]);
	EXPECT_EQ(c.getPixFormat(text[1]) | c.genICam_GetString("F", text[2]), 0);
	EXPECT_EQ(text[1] + std::string("|") + text[2], "Mono8|a, b");
}

TEST(VideoCapture, EventsReachTheHost) {
	Camera camera;
	camera.device.values = {{"!vendorname", "V"}, {"!modelname", std::string(200, 'm')},
	    {"!manufacturerinfo", "\"I, J\""}, {"!version", "1"}, {"!firmwareversion", "2"}, {"!deviceID", "D%s"},
	    {"!vendorinfo", "not a camera's"}};
	uint32_t words[14] = {7, 8};
	EXPECT_EQ(camera.event(40010, 1, 2, words, &camera), 0);
	EXPECT_EQ(camera.event(40010), kFailure) << "no information";
	EXPECT_TRUE(camera.event(40011, 1) == 0 && camera.IsSensorAcquiring() == 1);
	EXPECT_TRUE(camera.event(40011, 2) == 0 && camera.IsSensorAcquiring() == 0);
	EXPECT_TRUE(camera.event(40101) == 0 && camera.isOnline() && camera.device.commands.empty());
	EXPECT_TRUE(camera.event(40110, 3) == 0 && !camera.isOnline());
	EXPECT_TRUE(camera.event(40100) == 0 && camera.isOnline());
	camera.event(40200, 4, 5, words, &camera);
	EXPECT_EQ(camera.event(40120) | camera.event(1), 0) << "ignored";
	const std::vector<Event> expected = {{40010, 8, 0, words, nullptr}, {40011, 1, 0, nullptr, nullptr},
	    {40011, 2, 0, nullptr, nullptr}, {40101, 0, 0, nullptr, nullptr}, {40110, 3, 0, nullptr, nullptr},
	    {40100, 0, 0, nullptr, nullptr}, {40200, 4, 5, words, &camera}};
	EXPECT_TRUE(camera.events == expected && camera.GetFrameCount() == 1);
	const std::vector<std::string> read = {camera.getVendorName(), camera.getModelName(), camera.getManufacturerInfo(),
	    camera.getVersion(), camera.getFirmwareVersion(), camera.GetDeviceID()};
	EXPECT_EQ(read, (std::vector<std::string>{"V", std::string(127, 'm'), "I, J", "1", "2", "D%s"}));
	EXPECT_EQ(camera.callUserCB(1, 0, 0, nullptr, nullptr), 5);
}

TEST(VideoCapture, TheFifthFrameForgetsTheStartUp) {
	Camera camera;
	EXPECT_TRUE(camera.SetIntervalRingSize(4) == 0 && camera.SetIntervalRingSize(-1) == kFailure);
	qorSIO_INTERVAL_STATISTICS statistics;
	const auto countAfter = [&](int frames) {
		uint32_t words[14] = {};
		for (int i = 0; i < frames; ++i) camera.event(40010, 0, 0, words);
		camera.GetIntervalStatistics(&statistics);
		return statistics.mCount;
	};
	EXPECT_TRUE(countAfter(3) == 3 && countAfter(2) == 0 && countAfter(3) == 3);
	EXPECT_EQ(countAfter(8), 4) << "a ring, cleared once only";
	EXPECT_TRUE(statistics.mMinimum <= statistics.mMean && statistics.mMean <= statistics.mMaximum);
	EXPECT_LT(statistics.mMaximum, 5.0) << "the interval before the first frame is not among them";
	EXPECT_TRUE(camera.cmdStart() == 0 && countAfter(5) == 0) << "started anew";
}

TEST(VideoCapture, FrameInformationGoesRound) {
	Camera camera;
	ASSERT_TRUE(!camera.GetFreeFrameInfoPtr() && camera.SetFrameInfoRingSize(2) == 0);
	auto* first = camera.GetFreeFrameInfoPtr();
	first->mByteSize = first->mFrameNumber = 5;
	EXPECT_TRUE(camera.GetFreeFrameInfoPtr() == first + 1 && camera.GetFreeFrameInfoPtr() == first);
	EXPECT_TRUE(first->mByteSize == 0 && first->mFrameNumber == 5);
	camera.device.results[qorSIO_OBJ_COMMAND] = 1;
	for (const auto clear :
	    {+[](Camera& c) { return c.cmdOpen(); }, +[](Camera& c) { return c.cmdAllocInternalBuffers(2); }}) {
		first->mFrameNumber = 5;
		EXPECT_TRUE(clear(camera) == kFailure && first->mFrameNumber == 0) << "cleared also by a failure";
		EXPECT_EQ(camera.GetFreeFrameInfoPtr(), first);
	}
	camera.device.results.clear();
	EXPECT_TRUE(camera.cmdStart() == 0 && camera.SetFrameInfoRingSize(3) == kFailure);
}

TEST(VideoCapture, GeometryWaitsForTheHost) {
	Camera camera;
	LogCapture log;
	camera.acknowledges = false;
	std::thread host([&] { camera.acknowledges = eventually([&] { return camera.asked > 3; }); });
	camera.device.onCommand = [&] { EXPECT_TRUE(camera.isGeometryChanging() && camera.acknowledges); };
	EXPECT_EQ(camera.setROI(1, 2, 3, 4), 0);
	host.join();
	EXPECT_FALSE(camera.isGeometryChanging() || log.has("TIMEOUT!!!"));
	EXPECT_TRUE(log.has("[BEGIN] [CqorSIO_VideoCap] ") && log.has(": setROI(1,2,3,4)"));
	camera.device.reply = "!roi,17";
	EXPECT_EQ(camera.setROI(1, 2, 3, 4), 17);
	EXPECT_EQ(camera.setROIex(1, 2, 3, 4, 5, 6), kFailure) << "no key in the reply";
	camera.device.results[qorSIO_OBJ_COMMAND] = 1;
	EXPECT_EQ(camera.setWidth(64), kFailure);
	EXPECT_EQ(camera.setROI(1, 2, 3, 4) | camera.setROIex(1, 2, 3, 4, 5, 6), 0) << "told by the log alone";
	EXPECT_TRUE(log.has("setROI(1,2,3,4) - P2") && log.has("setROIEX(1,2,3,4,5,6) - P2"));

	camera.acknowledges = false; // the change is made without the host in the end
	camera.device.onCommand = nullptr;
	const auto begin = std::chrono::steady_clock::now();
	EXPECT_EQ(camera.setROI(5, 6, 7, 8), 0);
	EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(2900));
	EXPECT_TRUE(log.has("TIMEOUT!!!") && camera.device.commands.back() == "set,!roi,5,6,7,8");
	EXPECT_FALSE(camera.isGeometryChanging());
}

TEST(TimeCapture, SplitsTheTimeAndCountsEvents) {
	using Parts = std::array<double, 7>;
	FakeDevice device;
	CqorSIO_TimeCap clock;
	clock.piAccept(&device, &FakeDevice::function);
	for (const auto& [value, parts] : std::map<std::string, Parts>{
	         {"2026/11/21/13/45/59999/1.5", {2026, 11, 21, 13, 45, 59999, 1.5}}, {"1/2/3/4", {1, 2, 3, 4}},
	         {"/2//x/5/6/7e2/8", {0, 2, 0, 0, 5, 6, 700}}, {"65537/0/0/257", {1, 0, 0, 1}}, {"", {}}}) {
		device.values["!time"] = value;
		eqorSIO_TIME t = {9, 9, 9, 9, 9, 9, 9};
		EXPECT_EQ(clock.getTime(&t), value.empty() ? kFailure : 0) << value;
		const Parts read = {
		    1. * t.mPart1, 1. * t.mPart2, 1. * t.mPart3, 1. * t.mPart4, 1. * t.mPart5, 1. * t.mPart6, t.mPart7};
		EXPECT_EQ(read, parts) << value;
	}

	device.values = {{"!vendorinfo", "V"}, {"!vendorname", "a camera's"}};
	int calls = 0;
	clock.SetUserCallBack([](void* context, CqorSIO_TimeCap*, unsigned long code, unsigned long, unsigned long, void*,
	                          void*) { return *static_cast<int*>(context) += static_cast<int>(code); },
	    &calls);
	for (const unsigned long code : {40010, 40010, 40100, 40110, 40200, 40010})
		EXPECT_EQ(clock.OnObjectCB(code, 0, 0, nullptr, nullptr), 0);
	EXPECT_EQ(calls, 40100) << "one call, for that code";
	EXPECT_TRUE(clock.isOnline() && std::string(clock.getVendorInfo()) == "V") << "a timing device ignores 40110";
	clock.CountHostEvents(30);
	EXPECT_TRUE(eventually([&] { return clock.updatePerfCounters(), clock.GetEventRate() > 0; }));
	EXPECT_NEAR(clock.GetHostEventRate() / clock.GetEventRate(), 10, 0.001);
}
