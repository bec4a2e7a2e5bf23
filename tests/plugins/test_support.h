#pragma once

#include "support/log_capture.h"
#include "support/temp_folder.h"
#include "support/wait_until.h"

#include <gtest/gtest.h>

#include <qor/plugins/plugin_manager.h>
#include <qor/plugins/time_capture.h>
#include <qor/plugins/video_capture.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>

using test_support::eventually;
using test_support::LogCapture;
using test_support::readFile;
using test_support::TempFolder;
using test_support::writeFile;

inline constexpr int kFailure = 0x10000000;

/// The plug-in's side of a device, played by the test: remembers commands and answers them,
/// operations and settings with `status`, gets from `values`.
struct FakeDevice {
	std::string info = "!siotype,CqorSIO_Object";
	std::vector<std::string> commands;
	std::map<std::string, std::string> values;
	std::optional<std::string> reply; // instead of the usual one
	bool terminates = true;           // the reply
	void* object = nullptr;           // what it was attached with
	std::function<void()> onCommand;
	int status = 0;
	std::map<unsigned long, int> results; // of the object function, by its code

	static int function(void* context, unsigned long code, unsigned long, unsigned long, void* p1, void* p2) {
		auto& self = *static_cast<FakeDevice*>(context);
		if (code == qorSIO_OBJ_INFORMATION) self.info.copy(static_cast<char*>(p1), QOR_SIO_INFORMATION_SIZE);
		if (code == qorSIO_OBJ_COMMAND) {
			self.commands.emplace_back(static_cast<const char*>(p1));
			const auto text = self.reply.value_or(self.usual(self.commands.back()));
			if (self.onCommand) self.onCommand();
			std::memcpy(p2, text.c_str(), text.size() + self.terminates);
		}
		if (code == qorSIO_OBJ_ATTACH) self.object = p1;
		return self.results[code];
	}

	int event(unsigned long code, void* p1 = nullptr) const {
		return CqorSIO_Object::_piObjCB(object, code, 0, 0, p1, nullptr);
	}

	std::string usual(const std::string& command) const {
		const auto first = command.find(','), second = command.find(',', first + 1);
		const auto operation = command.substr(0, first), key = command.substr(first + 1, second - first - 1);
		if (operation == "get") return values.count(key) ? key + "," + values.at(key) : "";
		return (operation == "set" ? key : operation) + "," + std::to_string(status);
	}
};

inline int offer(void* manager, void* plugIn, FakeDevice& device) {
	return CqorSIO_PIManager::_manCB(
	    manager, plugIn, qorSIO_CB_PI_CREATE_OBJECT, 0, 0, &device, reinterpret_cast<void*>(&FakeDevice::function));
}

/// A manager whose host makes an object for every device of the plug-ins that ship, and one
/// camera among them with what it delivers.
class CameraTest : public testing::Test {
protected:
	explicit CameraTest(const std::string& id) {
		mManager->SetUserCallBack(&CameraTest::create, this);
		mManager->Create(QOR_PLUGINS, 0);
		for (auto& made : mCameras)
			if (made->GetDeviceID() == id) camera = made.get();
		if (camera) camera->SetUserCallBack(&CameraTest::onEvent, this);
	}
	void SetUp() override {
		if (!camera) GTEST_SKIP() << "the plug-ins that ship are not built (QOR_BUILD_PLUGINS)";
	}
	void TearDown() override { removeDevices(); } // before anything that their events use
	void removeDevices() {
		mManager.reset();
		mCameras.clear();
		clocks.clear();
	}
	virtual void onFrame(const qorSIO_VCAP_FRAME_INFO&, const unsigned char*) {}
	int begin(float rate, int buffers = 4) {
		frames.clear();
		ended = count = 0;
		camera->setFrameRate(rate);
		return camera->cmdOpen() | camera->cmdAllocInternalBuffers(buffers) | camera->cmdPrepare() | camera->cmdStart();
	}
	/// Waits for the end of the frames and stops.
	bool finish() {
		return eventually([this] { return ended == 1; }) && camera->cmdStop() == 0;
	}
	std::string text(const char* feature) {
		char value[kQorSioValueSize];
		return camera->genICam_GetString(feature, value) == 0 ? value : "";
	}

	CqorSIO_VideoCap* camera = nullptr;
	std::vector<std::unique_ptr<CqorSIO_TimeCap>> clocks;
	std::vector<qorSIO_VCAP_FRAME_INFO> frames;
	std::atomic<int> count{0}; // of the frames
	std::atomic<int> ended{0};
	std::vector<unsigned long> events; // but frames

private:
	static int create(void* manager, unsigned long, unsigned long, unsigned long, void* p1, void*) {
		auto& self = *static_cast<CameraTest*>(static_cast<CqorSIO_PIManager*>(manager)->mUserContext);
		auto* record = static_cast<eqorSIO_CREATE_VIDEOCAP*>(p1);
		if (std::string(record->mTypeName) == "CqorSIO_VideoCap")
			record->mObject = self.mCameras.emplace_back(std::make_unique<CqorSIO_VideoCap>()).get();
		else
			static_cast<eqorSIO_CREATE_TIMECAP*>(p1)->mObject =
			    self.clocks.emplace_back(std::make_unique<CqorSIO_TimeCap>()).get();
		return 0;
	}
	static int onEvent(
	    void* context, CqorSIO_VideoCap*, unsigned long code, unsigned long a, unsigned long, void* p1, void*) {
		auto& self = *static_cast<CameraTest*>(context);
		if (code == QOR_SIO_HOST_GEOMETRY) return *static_cast<int*>(p1) = 1, 0;
		if (code != qorSIO_EVENT_DATA) {
			self.events.push_back(code);
			if (code == qorSIO_EVENT_USER) self.ended = 1;
			return 0;
		}
		const auto& info = self.frames.emplace_back(*static_cast<const qorSIO_VCAP_FRAME_INFO*>(p1));
		EXPECT_EQ(a, info.mBufferIndex);
		self.onFrame(info, reinterpret_cast<const unsigned char*>(static_cast<uintptr_t>(info.mFrame)));
		++self.count;
		return 0;
	}

	std::vector<std::unique_ptr<CqorSIO_VideoCap>> mCameras;
	std::unique_ptr<CqorSIO_PIManager> mManager = std::make_unique<CqorSIO_PIManager>();
};
