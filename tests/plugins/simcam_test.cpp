#include "test_support.h"

#include <plugins/simcam/frame_pattern.h>

namespace {

/// A simulated camera whose frames are checked byte by byte.
struct Recording : CameraSession {
	std::atomic<int> bad{0};
	std::atomic<int> wrongHeader{0};
	std::function<void(uint64_t)> onNumber;

	Recording() : CameraSession("simcam-0") {
		onFrame = [this](const qorSIO_VCAP_FRAME_INFO& info, const unsigned char* frame) {
			simFrame_Header header{};
			if (simFrame_Verify(frame, info.mByteSize, &header, nullptr) != simFrame_GOOD) ++bad;
			if (header.mNumber != info.mFrameNumber || header.mTimeStamp != info.mTimeStamp) ++wrongHeader;
			if (onNumber) onNumber(info.mFrameNumber);
		};
	}
	~Recording() { devices.reset(); }
	int begin(int frameLimit, float rate) {
		camera->genICam_SetInt32("FrameLimit", frameLimit);
		return CameraSession::begin(rate);
	}
};

} // namespace

TEST(FramePattern, FindsEveryKindOfDamage) {
	constexpr uint64_t kSize = 4097 + 6;
	std::vector<unsigned char> frame(kSize), other(kSize);
	simFrame_Fill(frame.data(), kSize, 3);
	simFrame_Fill(other.data(), kSize, 3);
	simFrame_Write(frame.data(), kSize, 3, 70, 900);
	simFrame_Write(other.data(), kSize, 3, 66, 800);
	simFrame_Header header;
	uint64_t offset = 0;
	ASSERT_EQ(simFrame_Verify(frame.data(), kSize, &header, &offset), simFrame_GOOD);
	EXPECT_EQ(header.mNumber, 70u);
	const auto good = frame;
	for (size_t i = 0; i < kSize; ++i) {
		frame[i] ^= 1;
		EXPECT_NE(simFrame_Verify(frame.data(), kSize, nullptr, &offset), simFrame_GOOD) << "byte " << i;
		EXPECT_EQ(offset, i < 48 ? 0 : i / 8 * 8);
		frame[i] ^= 1;
	}
	for (size_t sector = 512; sector + 8 < kSize; sector += 512) {
		std::copy_n(other.begin() + static_cast<long>(sector), 8, frame.begin() + static_cast<long>(sector));
		EXPECT_EQ(simFrame_Verify(frame.data(), kSize, nullptr, &offset), simFrame_BAD_STAMP) << "torn at " << sector;
		EXPECT_EQ(offset, sector);
		frame = good;
	}
	std::copy(good.begin() + 512, good.end(), frame.begin()); // a sector lost
	EXPECT_EQ(simFrame_Verify(frame.data(), kSize, nullptr, nullptr), simFrame_BAD_HEADER);
	EXPECT_EQ(simFrame_Verify(good.data(), kSize - 1, nullptr, nullptr), simFrame_BAD_SIZE);
	EXPECT_EQ(simFrame_Verify(good.data(), 47, nullptr, nullptr), simFrame_TOO_SHORT);
}

TEST(SimulatedCamera, DeliversASession) {
	Recording recording;
	SKIP_WITHOUT_PLUGINS(recording);
	auto& camera = *recording.camera;
	EXPECT_TRUE(camera.isOnline());
	EXPECT_STREQ(camera.getModelName(), "Simulated camera");
	EXPECT_EQ(camera.setROI(16, 8, 640, 480), 0);
	EXPECT_EQ(camera.genICam_SetString("PixelFormat", "Mono16"), 0);
	EXPECT_EQ(camera.getFrameByteSize(), 640 * 480 * 2);
	EXPECT_EQ(camera.cmdPrepare(), 1) << "not open";
	ASSERT_EQ(recording.begin(40, 2000), 0);
	EXPECT_EQ(camera.cmdOpen(), 1);
	EXPECT_EQ(camera.cmdReleaseInternalBuffers(), 1) << "in use";
	ASSERT_TRUE(recording.finish());
	EXPECT_EQ(camera.cmdReleaseInternalBuffers(), 0);
	EXPECT_EQ(camera.cmdPrepare(), 1) << "no buffers";
	EXPECT_EQ(camera.cmdClose(), 0);
	ASSERT_EQ(recording.frames.size(), 40u);
	EXPECT_EQ(recording.bad + recording.wrongHeader, 0);
	EXPECT_EQ(recording.events, (std::vector<unsigned long>{40011, 40200, 40011}));
	for (size_t i = 0; i < 40; ++i) {
		const auto& f = recording.frames[i];
		const std::vector<uint64_t> told = {
		    f.mFrameNumber, f.mBufferIndex, f.mByteSize, f.mWidth, f.mHeight, f.mStride};
		EXPECT_EQ(told, (std::vector<uint64_t>{i, i % 4, 640 * 480 * 2, 640, 480, 1280}));
		EXPECT_EQ(f.mPixelFormat, qorSIO_PIXEL_MONO16);
		EXPECT_GE(f.mTimeStamp, recording.frames[i - (i > 0)].mTimeStamp);
	}
	// On the schedule: 39 intervals of 0.5 ms, late by what a loaded machine takes, never early.
	EXPECT_GE(recording.frames.back().mTimeStamp - recording.frames.front().mTimeStamp, 19000000u);
}

TEST(SimulatedCamera, RefusesSettingsItCannotHave) {
	Recording recording;
	SKIP_WITHOUT_PLUGINS(recording);
	auto& c = *recording.camera;
	const std::vector<int> refused = {c.setWidth(63), c.setWidth(4097), c.setX(4096), c.setROI(4000, 0, 128, 128),
	    c.setROI(0x7FFFFFFF, 0, 128, 128), c.setROIex(0, 0, 128, 128, 3, 1), c.setFrameRate(-1), c.setExposure(0),
	    c.genICam_SetString("PixelFormat", "RGB"), c.genICam_SetString("Fault", "drop:0")};
	EXPECT_EQ(refused, std::vector<int>(10, 3));
	EXPECT_EQ(c.genICam_SetString("Nothing", "1"), 2);
	EXPECT_EQ(c.setROIex(0, 0, 128, 128, 2, 4), 0);
	EXPECT_EQ(c.getFrameByteSize(), 64 * 32);
	EXPECT_EQ(c.cmdOpen(), 0);
	EXPECT_EQ(c.piVerboseSingleOP("dance", ""), 2) << "no such operation";
	EXPECT_EQ(c.cmdAllocInternalBuffers(0), 3);
	EXPECT_EQ(c.cmdAllocInternalBuffers(2), 0);
	EXPECT_EQ(c.setROI(0, 0, 4096, 3072), 3) << "larger than the buffers";
	EXPECT_EQ(c.cmdClose(), 0);
	EXPECT_EQ(c.cmdClose(), 1);
}

TEST(SimulatedCamera, ChangesGeometryWhileItRuns) {
	Recording recording;
	SKIP_WITHOUT_PLUGINS(recording);
	auto& camera = *recording.camera;
	EXPECT_EQ(camera.setROI(0, 0, 256, 256), 0);
	ASSERT_EQ(recording.begin(0, 0), 0); // as fast as the machine gives
	for (const int width : {128, 256, 64, 192}) {
		EXPECT_EQ(camera.setWidth(width), 0);
		const int seen = recording.count;
		ASSERT_TRUE(eventually([&] { return recording.count > seen + 10; }));
		EXPECT_EQ(camera.getWidth(), width);
	}
	EXPECT_EQ(camera.cmdStop(), 0);
	const int count = recording.count;
	std::this_thread::sleep_for(std::chrono::milliseconds(20));
	EXPECT_EQ(recording.count, count) << "nothing behind stop";
	EXPECT_EQ(recording.bad + recording.wrongHeader, 0);
	for (size_t i = 0; i < recording.frames.size(); ++i) ASSERT_EQ(recording.frames[i].mFrameNumber, i);
	EXPECT_EQ(recording.frames.back().mWidth, 192u);
}

TEST(SimulatedCamera, CanBeStoppedFromWithinAFrame) {
	Recording recording;
	SKIP_WITHOUT_PLUGINS(recording);
	auto& camera = *recording.camera;
	std::atomic<int> stopped{0};
	recording.onNumber = [&](uint64_t number) {
		if (number != 3) return;
		EXPECT_EQ(camera.cmdClose(), 1) << "the frame is still in use";
		EXPECT_EQ(camera.cmdStop(), 0);
		EXPECT_EQ(camera.cmdReleaseInternalBuffers(), 1);
		++stopped;
	};
	for (int round = 0; round < 3; ++round) {
		recording.frames.clear();
		ASSERT_EQ(round == 0 ? recording.begin(0, 1000) : camera.cmdPrepare() | camera.cmdStart(), 0);
		ASSERT_TRUE(eventually([&] { return stopped > round; }));
		EXPECT_EQ(camera.cmdStop(), 0); // waits for the end of that frame
		EXPECT_EQ(recording.frames.size(), 4u);
	}
	EXPECT_EQ(camera.cmdClose(), 0);
}

TEST(SimulatedCamera, SpoilsFramesOnRequest) {
	static constexpr struct {
		const char* fault;
		size_t frames; // of 20
		int bad;
		uint64_t last;
	} cases[] = {
	    {"none", 20, 0, 19},
	    {"drop:5", 16, 0, 18},
	    {"corrupt:4", 20, 5, 19},
	    {"wrongsize:8", 20, 20, 19},
	    {"burst:10;delay:1", 20, 0, 19},
	};
	for (const auto& c : cases) {
		SCOPED_TRACE(c.fault);
		Recording recording;
		SKIP_WITHOUT_PLUGINS(recording);
		EXPECT_EQ(recording.camera->setROI(0, 0, 64, 64), 0);
		EXPECT_EQ(recording.camera->genICam_SetString("Fault", c.fault), 0);
		ASSERT_EQ(recording.begin(20, 5000), 0);
		ASSERT_TRUE(recording.finish());
		EXPECT_EQ(recording.frames.size(), c.frames);
		EXPECT_EQ(recording.bad, c.bad);
		EXPECT_EQ(recording.frames.back().mFrameNumber, c.last);
	}
}

TEST(SimulatedCamera, SpoilsRepliesOnRequest) {
	Recording recording;
	SKIP_WITHOUT_PLUGINS(recording);
	for (const char* fault : {"refuse:open", "badreply", "emptyreply", "longreply", "noreply"}) {
		EXPECT_EQ(recording.camera->genICam_SetString("Fault", fault), 0);
		EXPECT_EQ(recording.camera->cmdOpen(), fault[0] == 'r' ? 5 : kFailure) << fault;
		EXPECT_FALSE(recording.camera->isOpen());
		EXPECT_EQ(recording.text("Fault"), fault);
	}
}

TEST(SimulatedCamera, StallsAndGoesOffline) {
	Recording recording;
	SKIP_WITHOUT_PLUGINS(recording);
	auto& camera = *recording.camera;
	EXPECT_EQ(camera.setROI(0, 0, 64, 64), 0);
	EXPECT_EQ(camera.genICam_SetString("Fault", "stall:5;offline"), 0);
	EXPECT_FALSE(camera.isOnline());
	ASSERT_EQ(recording.begin(8, 0), 0);
	ASSERT_TRUE(eventually([&] { return recording.count == 5; }));
	std::this_thread::sleep_for(std::chrono::milliseconds(10));
	EXPECT_EQ(recording.count, 5);
	EXPECT_EQ(camera.genICam_SetString("Fault", "online"), 0);
	EXPECT_TRUE(camera.isOnline());
	EXPECT_TRUE(recording.finish());
	EXPECT_EQ(recording.count, 8);
}

TEST(SimulatedCamera, NoticesThatItsObjectHasGone) {
	Recording recording;
	SKIP_WITHOUT_PLUGINS(recording);
	EXPECT_EQ(recording.camera->setROI(0, 0, 64, 64), 0);
	ASSERT_EQ(recording.begin(0, 0), 0);
	recording.devices.reset(); // not even stopped
	const int count = recording.count;
	std::this_thread::sleep_for(std::chrono::milliseconds(5));
	EXPECT_EQ(recording.count, count);
}

TEST(SimulatedTimingDevice, TellsTheTimeAndCounts) {
	CameraSession session("template-0");
	SKIP_WITHOUT_PLUGINS(session);
	auto* clock = session.devices->clock();
	ASSERT_NE(clock, nullptr);
	eqorSIO_TIME time{};
	EXPECT_EQ(clock->getTime(&time), 0);
	EXPECT_TRUE(time.mPart1 >= 2024 && time.mPart2 >= 1 && time.mPart2 <= 12 && time.mPart6 < 61000);
	EXPECT_EQ(clock->piVerboseSetFloat32("!genicam:float32:EventRate", 1000), 0);
	EXPECT_EQ(clock->cmdOpen() | clock->cmdPrepare() | clock->cmdStart(), 0);
	EXPECT_TRUE(eventually([&] { return clock->GetEventCount() > 5; }));
	EXPECT_EQ(clock->cmdStop() | clock->cmdClose(), 0);
}

TEST(TemplateCamera, DeliversAFrameForATrigger) {
	CameraSession session("template-0");
	SKIP_WITHOUT_PLUGINS(session);
	EXPECT_EQ(session.camera->genICam_Command("TriggerSoftware"), 1) << "not started";
	EXPECT_EQ(session.begin(0), 0);
	EXPECT_EQ(session.camera->genICam_Command("TriggerSoftware"), 0);
	EXPECT_EQ(session.count, 1);
	EXPECT_EQ(session.camera->cmdStop() | session.camera->cmdClose(), 0);
}
