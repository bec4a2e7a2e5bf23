#pragma once

#include <gtest/gtest.h>

#include <qor/core/runtime.h>
#include <qor/plugins/plugin_manager.h>
#include <qor/plugins/time_capture.h>
#include <qor/plugins/video_capture.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

inline constexpr int kFailure = 0x10000000;

/// The log lines written during its life.
class LogLines {
public:
	LogLines() {
		appLogSetFunc([this](const char* line) {
			const std::lock_guard guard(mMutex);
			return mLines.append(line), true;
		});
	}
	~LogLines() { appLogSetFunc(nullptr); }
	bool has(const std::string& text) {
		const std::lock_guard guard(mMutex);
		return mLines.find(text) != std::string::npos;
	}

private:
	std::mutex mMutex;
	std::string mLines;
};

/// The plug-in's side of a device, played by the test: remembers commands and answers them,
/// operations and settings with `status`, gets from `values`.
struct FakeDevice {
	std::vector<std::string> commands;
	std::map<std::string, std::string> values;
	std::function<std::string(const std::string&)> answer; // instead of the usual reply
	int status = 0;
	int result = 0;
	std::string info = "!siotype,CqorSIO_Object";
	int infoResult = 0;
	int attachResult = 0;
	std::function<void(const std::string&)> onCommand;

	static int function(void* context, unsigned long code, unsigned long, unsigned long, void* p1, void* p2) {
		auto& self = *static_cast<FakeDevice*>(context);
		if (code == qorSIO_OBJ_INFORMATION) return self.info.copy(static_cast<char*>(p1), 512), self.infoResult;
		if (code == qorSIO_OBJ_ATTACH) return self.attachResult;
		const std::string command = static_cast<const char*>(p1);
		self.commands.push_back(command);
		if (self.onCommand) self.onCommand(command);
		const auto reply = self.answer ? self.answer(command) : self.usual(command);
		std::memcpy(p2, reply.c_str(), reply.size() + 1);
		return self.result;
	}

	std::string usual(const std::string& command) const {
		const auto comma = command.find(',');
		const auto operation = command.substr(0, comma);
		if (operation != "get" && operation != "set") return operation + "," + std::to_string(status);
		const auto key = command.substr(comma + 1, command.find(',', comma + 1) - comma - 1);
		if (operation == "set") return key + "," + std::to_string(status);
		const auto value = values.find(key);
		return value == values.end() ? "" : key + "," + value->second;
	}
};

template <class Condition>
bool eventually(Condition condition, int seconds = 20) {
	const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
	while (!condition()) {
		if (std::chrono::steady_clock::now() > end) return false;
		std::this_thread::sleep_for(std::chrono::milliseconds(1));
	}
	return true;
}

/// A fresh folder that goes with its object.
class FreshFolder {
public:
	FreshFolder() {
		static std::atomic<int> counter{0};
		const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
		mPath = std::filesystem::temp_directory_path() /
		        ("qor_plugins_" + std::to_string(stamp) + "_" + std::to_string(counter++));
		std::filesystem::create_directories(mPath);
	}
	~FreshFolder() {
		std::error_code ignored;
		std::filesystem::remove_all(mPath, ignored);
	}
	const std::filesystem::path& path() const { return mPath; }
	std::string text() const { return mPath.string(); }

private:
	std::filesystem::path mPath;
};

/// A manager whose host makes an object for every device of the plug-ins that ship.
class Devices {
public:
	Devices() {
		mManager.SetUserCallBack(&Devices::create, this);
		mManager.Create(QOR_PLUGINS, 0);
	}
	CqorSIO_VideoCap* camera(const std::string& id) {
		for (auto& camera : mCameras)
			if (camera->GetDeviceID() == id) return camera.get();
		return nullptr;
	}
	CqorSIO_TimeCap* clock() { return mClocks.empty() ? nullptr : mClocks.front().get(); }

private:
	static int create(void* manager, unsigned long, unsigned long, unsigned long, void* p1, void*) {
		auto& self = *static_cast<Devices*>(static_cast<CqorSIO_PIManager*>(manager)->mUserContext);
		auto* record = static_cast<eqorSIO_CREATE_VIDEOCAP*>(p1);
		if (std::string(record->mTypeName) == "CqorSIO_VideoCap")
			record->mObject = self.mCameras.emplace_back(std::make_unique<CqorSIO_VideoCap>()).get();
		else
			static_cast<eqorSIO_CREATE_TIMECAP*>(p1)->mObject =
			    self.mClocks.emplace_back(std::make_unique<CqorSIO_TimeCap>()).get();
		return 0;
	}

	std::vector<std::unique_ptr<CqorSIO_VideoCap>> mCameras;
	std::vector<std::unique_ptr<CqorSIO_TimeCap>> mClocks;
	CqorSIO_PIManager mManager;
};

/// One camera of the plug-ins that ship, and what it delivers.
struct CameraSession {
	std::vector<qorSIO_VCAP_FRAME_INFO> frames;
	std::vector<unsigned long> events; // but frames
	std::atomic<int> count{0};         // of the frames
	std::atomic<bool> ended{false};    // event 40200
	std::function<void(const qorSIO_VCAP_FRAME_INFO&, const unsigned char*)> onFrame;
	/// Goes first, also before what `onFrame` uses: derived classes reset it in their destructor.
	std::unique_ptr<Devices> devices = std::make_unique<Devices>();
	CqorSIO_VideoCap* camera;

	explicit CameraSession(const char* id) : camera(devices->camera(id)) {
		if (camera) camera->SetUserCallBack(&CameraSession::onEvent, this);
	}
	static int onEvent(
	    void* context, CqorSIO_VideoCap*, unsigned long code, unsigned long a, unsigned long, void* p1, void*) {
		auto& self = *static_cast<CameraSession*>(context);
		if (code == 40120) return *static_cast<int*>(p1) = 1, 0;
		if (code != 40010) {
			self.events.push_back(code);
			if (code == 40200) self.ended = true;
			return 0;
		}
		const auto info = *static_cast<const qorSIO_VCAP_FRAME_INFO*>(p1);
		EXPECT_EQ(a, info.mBufferIndex);
		self.frames.push_back(info);
		if (self.onFrame)
			self.onFrame(info, reinterpret_cast<const unsigned char*>(static_cast<uintptr_t>(info.mFrame)));
		++self.count;
		return 0;
	}
	int begin(float rate, int buffers = 4) {
		camera->setFrameRate(rate);
		return camera->cmdOpen() | camera->cmdAllocInternalBuffers(buffers) | camera->cmdPrepare() | camera->cmdStart();
	}
	/// Waits for the end of the frames and stops.
	bool finish() {
		return eventually([this] { return ended.load(); }) && camera->cmdStop() == 0;
	}
	std::string text(const char* feature) {
		char value[kQorSioValueSize];
		return camera->genICam_GetString(feature, value) == 0 ? value : "";
	}
};

#define SKIP_WITHOUT_PLUGINS(session)                                                                                  \
	if (!(session).camera) GTEST_SKIP() << "the plug-ins that ship are not built (QOR_BUILD_PLUGINS)"
