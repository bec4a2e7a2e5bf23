#include "test_support.h"

#include <plugins/simcam/frame_pattern.h>

#include <algorithm>
#include <tuple>

namespace {

/// A simulated camera whose frames are checked byte by byte.
class SimulatedCamera : public CameraTest {
protected:
	SimulatedCamera() : CameraTest("simcam-0") {}
	void onFrame(const qorSIO_VCAP_FRAME_INFO& info, const unsigned char* frame) override {
		simFrame_Header header{};
		const bool good = simFrame_Verify(frame, info.mByteSize, &header, nullptr) == simFrame_GOOD;
		bad += !good || header.mNumber != info.mFrameNumber || header.mTimeStamp != info.mTimeStamp;
		if (onFourth && info.mFrameNumber == 3) onFourth();
	}
	int begin(int frameLimit, float rate) {
		bad = 0;
		camera->genICam_SetInt32("FrameLimit", frameLimit);
		return CameraTest::begin(rate);
	}
	void expectNoMoreFrames() {
		const int seen = count;
		std::this_thread::sleep_for(std::chrono::milliseconds(10));
		EXPECT_EQ(count, seen);
	}

	int bad = 0; // on the device's thread
	std::function<void()> onFourth;
	std::atomic<int> stopped{0};
};

constexpr uint64_t kSize = 4097 + 6; // of a frame with a part of a sector and of a word

struct TemplateCamera : CameraTest {
	TemplateCamera() : CameraTest("template-0") {}
};

} // namespace

TEST(FramePattern, FindsEveryKindOfDamage) {
	uint64_t offset = 0;
	std::vector<unsigned char> frame(kSize), other(kSize);
	for (auto* f : {&frame, &other}) {
		simFrame_Fill(f->data(), kSize, 3);
		simFrame_Write(f->data(), kSize, 3, f == &frame ? 70 : 66, f == &frame ? 900 : 800);
	}
	const auto verify = [&](uint64_t size = kSize) { return simFrame_Verify(frame.data(), size, nullptr, &offset); };
	EXPECT_EQ(verify(), simFrame_GOOD);
	for (size_t i = 0; i < kSize; ++i) {
		frame[i] ^= 1;
		EXPECT_TRUE(verify() != simFrame_GOOD && offset == (i < 48 ? 0 : i / 8 * 8)) << "byte " << i;
		frame[i] ^= 1;
	}
	for (size_t sector = 512; sector + 8 < kSize; sector += 512) {
		std::swap_ranges(frame.data() + sector, frame.data() + sector + 8, other.data() + sector);
		EXPECT_TRUE(verify() == simFrame_BAD_STAMP && offset == sector) << "torn at " << sector;
		std::swap_ranges(frame.data() + sector, frame.data() + sector + 8, other.data() + sector);
	}
	EXPECT_EQ(verify(kSize - 1), simFrame_BAD_SIZE);
	EXPECT_EQ(verify(47), simFrame_TOO_SHORT);
	std::copy(frame.begin() + 512, frame.end(), frame.begin()); // a sector lost
	EXPECT_EQ(verify(), simFrame_BAD_HEADER);
}

TEST_F(SimulatedCamera, DeliversASession) {
	EXPECT_TRUE(camera->isOnline() && camera->cmdPrepare() == 1) << "not open";
	EXPECT_EQ(camera->setROI(16, 8, 640, 480) | camera->genICam_SetString("PixelFormat", "Mono16"), 0);
	const auto start = std::chrono::steady_clock::now();
	ASSERT_EQ(begin(40, 2000), 0);
	EXPECT_TRUE(camera->cmdOpen() == 1 && camera->cmdReleaseInternalBuffers() == 1) << "in use";
	ASSERT_TRUE(finish());
	const auto taken = std::chrono::steady_clock::now() - start;
	EXPECT_TRUE(camera->cmdReleaseInternalBuffers() == 0 && camera->cmdPrepare() == 1) << "no buffers";
	EXPECT_TRUE(camera->cmdClose() == 0 && camera->cmdClose() == 1);
	ASSERT_TRUE(frames.size() == 40 && bad == 0);
	EXPECT_EQ(events, (std::vector<unsigned long>{40011, 40200, 40011}));
	for (size_t i = 0; i < 40; ++i) {
		const auto& f = frames[i];
		const std::vector<uint64_t> told = {
		    f.mFrameNumber, f.mBufferIndex, f.mByteSize, f.mWidth, f.mHeight, f.mStride, f.mPixelFormat};
		EXPECT_EQ(told, (std::vector<uint64_t>{i, i % 4, 640 * 480 * 2, 640, 480, 1280, qorSIO_PIXEL_MONO16}));
		EXPECT_GE(f.mTimeStamp, frames[i - (i > 0)].mTimeStamp);
	}
	// 39 intervals of 0.5 ms: late by what a loaded machine takes, never early.
	EXPECT_GE(taken, std::chrono::microseconds(19500));
}

TEST_F(SimulatedCamera, RefusesSettingsItCannotHave) {
	auto& c = *camera;
	for (const int refused : {c.setWidth(63), c.setROI(4000, 0, 128, 128), c.setROI(0x7FFFFFFF, 0, 128, 128),
	         c.setROIex(0, 0, 128, 128, 3, 1), c.setFrameRate(-1), c.genICam_SetString("Fault", "drop:0")})
		EXPECT_EQ(refused, 3);
	EXPECT_EQ(c.setROIex(0, 0, 128, 128, 2, 4) | c.cmdOpen() | c.cmdAllocInternalBuffers(2), 0);
	EXPECT_EQ(c.setROI(0, 0, 4096, 3072), 3) << "larger than the buffers";
}

TEST_F(SimulatedCamera, ChangesGeometryWhileItRuns) {
	EXPECT_EQ(camera->setROI(0, 0, 256, 256), 0);
	ASSERT_EQ(begin(0, 0), 0); // as fast as the machine gives
	for (const int width : {128, 256, 64, 192}) {
		EXPECT_EQ(camera->setWidth(width), 0);
		ASSERT_TRUE(eventually([this, seen = count.load()] { return count > seen + 10; }));
		EXPECT_EQ(camera->getWidth(), width);
	}
	EXPECT_EQ(camera->cmdStop(), 0);
	expectNoMoreFrames();
	for (size_t i = 0; i < frames.size(); ++i) ASSERT_EQ(frames[i].mFrameNumber, i);
	EXPECT_TRUE(frames.back().mWidth == 192 && bad == 0);

	EXPECT_EQ(camera->cmdPrepare() | camera->cmdStart(), 0);
	ASSERT_TRUE(eventually([this, seen = count.load()] { return count > seen; }));
	removeDevices(); // not even stopped
	expectNoMoreFrames();
}

TEST_F(SimulatedCamera, CanBeStoppedFromWithinAFrame) {
	onFourth = [&] {
		EXPECT_EQ(camera->cmdClose(), 1) << "the frame is still in use";
		EXPECT_TRUE(camera->cmdStop() == 0 && camera->cmdReleaseInternalBuffers() == 1);
		++stopped;
	};
	for (int round = 0; round < 3; ++round) {
		ASSERT_TRUE(begin(0, 1000) == 0 && eventually([&] { return stopped > round; }));
		EXPECT_EQ(camera->cmdStop(), 0); // waits for the end of that frame
		EXPECT_TRUE(frames.size() == 4 && camera->cmdClose() == 0);
	}
}

TEST_F(SimulatedCamera, SpoilsFramesOnRequest) {
	using Fault = std::tuple<const char*, size_t, int, uint64_t>; // frames of 20, bad ones, the last number
	static const Fault cases[] = {
	    {"drop:5", 16, 0, 18}, {"corrupt:4", 20, 5, 19}, {"wrongsize:8", 20, 20, 19}, {"burst:10;delay:1", 20, 0, 19}};
	EXPECT_EQ(camera->setROI(0, 0, 64, 64), 0);
	for (const auto& [fault, arrived, badOnes, last] : cases) {
		SCOPED_TRACE(fault);
		EXPECT_EQ(camera->genICam_SetString("Fault", fault), 0);
		ASSERT_TRUE(begin(20, 5000) == 0 && finish());
		EXPECT_TRUE(frames.size() == arrived && bad == badOnes && frames.back().mFrameNumber == last);
		EXPECT_EQ(camera->cmdClose(), 0);
	}
}

TEST_F(SimulatedCamera, StandsBesideAClock) {
	ASSERT_FALSE(clocks.empty());
	auto& clock = *clocks.front();
	eqorSIO_TIME time{};
	EXPECT_EQ(clock.getTime(&time) | clock.cmdOpen() | clock.cmdPrepare() | clock.cmdStart(), 0);
	EXPECT_TRUE(time.mPart1 >= 2024 && time.mPart2 >= 1 && time.mPart2 <= 12 && time.mPart6 < 61000);
	EXPECT_TRUE(clock.isOpen() && clock.isPrepared() && clock.isAcquiring());
	EXPECT_TRUE(eventually([&] { return clock.GetEventCount() > 0; }));
	EXPECT_EQ(clock.cmdStop() | clock.cmdClose(), 0);
}

TEST_F(TemplateCamera, DeliversAFrameForATrigger) {
	EXPECT_TRUE(begin(0) == 0 && camera->genICam_Command("TriggerSoftware") == 0 && count == 1);
	EXPECT_EQ(camera->cmdStop() | camera->cmdClose(), 0);
}
