#pragma once

#include "command.h"
#include "pacer.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace plugin {

/// A device with a thread of its own: the states, the commands and the events. What the
/// device is comes from the class derived from it.
///
///     closed --open--> open --prepare--> prepared --start--> running
///        ^--close-------^ ^----------stop---+------------------'
///
/// Locks: `mMutex` guards state and settings; it is held while a command runs and while the
/// thread makes an event, never while an event is reported, since the host may send commands
/// from within it. When "stop" has returned nothing is reported any more; when the host sends
/// it from within an event, that event is the last one.
///
/// Devices are never deleted: the library object that a device is bound to may go, the plug-in
/// stays. The library stops a running device before its object goes. An event that it answers
/// with `QOR_SIO_FAILURE` tells that the object has gone, and ends the thread.
class Device {
public:
	Device() = default;
	virtual ~Device() = default;
	Device(const Device&) = delete;
	Device& operator=(const Device&) = delete;

	/// The object function given to the library; `context` is the device.
	static int objectFunction(void* context, unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2);

protected:
	enum class State { closed, open, prepared, running };

	/// Of the information line: the class name.
	virtual const char* siotype() const = 0;
	/// The value of a key, ready for a reply (texts through `quoted`).
	virtual std::optional<std::string> get(const std::string& key) = 0;
	virtual Status set(const std::string& key, const std::string& value) = 0;
	/// Operations beyond those of the state picture, in the states open and prepared; and what
	/// "open", "prepare", "start" and "close" need besides, in the state before the change.
	virtual Status operate(const std::string& operation, const std::string& argument) = 0;
	/// A reason to refuse any operation before it is looked at.
	virtual Status refusal(const std::string&) { return kOk; }
	/// An event that the last setting asks for, reported on the thread that sent it; 0: none.
	virtual unsigned long takeEvent() { return 0; }
	/// May answer a command in a way no device should. @return false: answer as usual.
	virtual bool misbehave(const Command&, char*, int*) { return false; }

	/// One turn of the thread, with `lock` held on entry and return; events are reported
	/// through `report` with it released. @return false: nothing more to do until "stop".
	virtual bool turn(std::unique_lock<std::mutex>& lock) = 0;

	/// Reports an event with `lock` released meanwhile. Sets `mAbandoned` when the object has gone.
	void report(std::unique_lock<std::mutex>& lock, unsigned long code, unsigned long a = 0, unsigned long b = 0,
	    void* p1 = nullptr);
	/// Sleeps until `due`, with `lock` released meanwhile. @return false when the device is to stop.
	bool sleepUntil(std::unique_lock<std::mutex>& lock, Pacer::Clock::time_point due);
	/// Wakes the thread after a change of the settings.
	void wake();
	bool canRun() const { return !mStopping && !mAbandoned; }

	std::mutex mMutex;
	State mState = State::closed;
	unsigned mWakes = 0; // counts `wake`, so that a sleeper sees a change

private:
	int attach(void* object, qorSIO_Func callback);
	int command(const char* line, char* reply);
	Status runOperation(std::unique_lock<std::mutex>& lock, const Command& command);
	Status close(std::unique_lock<std::mutex>& lock);
	Status start();
	/// Called from within an event, it reports the end at once; the thread ends when the event returns.
	void stop(std::unique_lock<std::mutex>& lock);
	/// Waits for the end of the thread. @return false, without waiting, on that thread itself.
	bool join(std::unique_lock<std::mutex>& lock);
	bool isOwnThread() const { return mThread.get_id() == std::this_thread::get_id(); }
	void run();

	std::condition_variable mChanged;
	std::atomic<int> mWaiting{0}; // commands on their way to mMutex
	bool mStopping = false;       // asked of the thread
	bool mJoining = false;        // one caller waits for the thread; others wait for that one
	bool mAbandoned = false;      // the library object has gone
	std::thread mThread;
	void* mObject = nullptr;
	qorSIO_Func mCallback = nullptr;
};

inline int Device::objectFunction(void* context, unsigned long code, unsigned long, unsigned long, void* p1, void* p2) {
	auto* device = static_cast<Device*>(context);
	if (!device || !p1) return QOR_SIO_FAILURE;
	try {
		switch (code) {
		case qorSIO_OBJ_INFORMATION:
			std::snprintf(static_cast<char*>(p1), QOR_SIO_INFORMATION_SIZE, QOR_SIO_KEY_TYPE ",%s", device->siotype());
			return QOR_SIO_OK;
		case qorSIO_OBJ_ATTACH: return device->attach(p1, reinterpret_cast<qorSIO_Func>(p2));
		case qorSIO_OBJ_COMMAND:
			return p2 ? device->command(static_cast<const char*>(p1), static_cast<char*>(p2)) : QOR_SIO_FAILURE;
		default: return QOR_SIO_FAILURE;
		}
	} catch (...) {
		return QOR_SIO_FAILURE; // no exception crosses the boundary; here it is lack of memory
	}
}

inline int Device::attach(void* object, qorSIO_Func callback) {
	std::unique_lock lock(mMutex);
	if (!callback || mState != State::closed) return QOR_SIO_FAILURE;
	mObject = object;
	mCallback = callback;
	mAbandoned = false;
	report(lock, qorSIO_EVENT_CONNECTED);
	return QOR_SIO_OK;
}

inline int Device::command(const char* line, char* reply) {
	const Command command(line);
	mWaiting.fetch_add(1);
	std::unique_lock lock(mMutex);
	mWaiting.fetch_sub(1);
	int answer = QOR_SIO_OK;
	if (misbehave(command, reply, &answer)) return answer;
	if (command.operation == "get") {
		const auto value = get(command.key);
		// Without the key in the reply the library takes the get as failed.
		return value ? writeReply(reply, command.key, *value) : writeReply(reply, "!unknown", command.key);
	}
	if (command.operation == "set") {
		const auto status = set(command.key, command.value);
		wake();
		if (const auto event = takeEvent()) report(lock, event);
		return writeReply(reply, command.key, std::to_string(status));
	}
	const auto status = runOperation(lock, command);
	return writeReply(reply, command.operation, std::to_string(status));
}

inline Status Device::runOperation(std::unique_lock<std::mutex>& lock, const Command& command) {
	const auto& operation = command.operation;
	if (const auto status = refusal(operation)) return status;
	if (operation == QOR_SIO_OP_STOP) {
		if (mState == State::closed) return kWrongState;
		stop(lock);
		return kOk;
	}
	// A thread that was stopped from within an event may still be in it.
	if (mState != State::running && !join(lock)) return kWrongState;
	if (operation == QOR_SIO_OP_CLOSE) return close(lock);
	if (operation == QOR_SIO_OP_START) return start();
	const bool opens = operation == QOR_SIO_OP_OPEN;
	const bool prepares = operation == QOR_SIO_OP_PREPARE;
	if (opens ? mState != State::closed : mState == State::closed || mState == State::running) return kWrongState;
	const auto status = operate(operation, command.value);
	if (status == kOk && (opens || prepares)) mState = opens ? State::open : State::prepared;
	return status;
}

inline Status Device::close(std::unique_lock<std::mutex>& lock) {
	// Not from within an event: its receiver is still working on a frame of this device.
	if (mState == State::closed || isOwnThread()) return kWrongState;
	stop(lock);
	if (mState != State::open) return kWrongState;
	operate(QOR_SIO_OP_CLOSE, "");
	mState = State::closed;
	return kOk;
}

inline Status Device::start() {
	if (mState != State::prepared) return kWrongState;
	if (const auto status = operate(QOR_SIO_OP_START, "")) return status;
	mStopping = mAbandoned = false;
	mThread = std::thread(&Device::run, this);
	mState = State::running;
	return kOk;
}

inline void Device::stop(std::unique_lock<std::mutex>& lock) {
	mStopping = true;
	wake();
	if (!join(lock) && mState == State::running) report(lock, qorSIO_EVENT_ACQUIRING, 0);
	if (mState != State::closed) mState = State::open;
}

inline bool Device::join(std::unique_lock<std::mutex>& lock) {
	if (isOwnThread()) return false;
	mChanged.wait(lock, [this] { return !mJoining; });
	if (!mThread.joinable()) return true;
	mJoining = true;
	lock.unlock(); // the thread may be in an event whose receiver sends commands
	mThread.join();
	lock.lock();
	mJoining = false;
	mChanged.notify_all();
	return true;
}

inline void Device::run() {
	std::unique_lock lock(mMutex);
	report(lock, qorSIO_EVENT_ACQUIRING, 1);
	try {
		while (canRun() && turn(lock)) {
		}
	} catch (...) {
		if (!lock.owns_lock()) lock.lock(); // no memory: nothing more comes until "stop"
	}
	mChanged.wait(lock, [this] { return mStopping || mAbandoned; });
	if (mAbandoned && !mJoining) {
		// Whoever would join this thread is gone; the next host finds the device open.
		mThread.detach();
		if (!mStopping) mState = State::open;
		return;
	}
	// Stopped from within an event: the end was reported there.
	if (mState == State::running) report(lock, qorSIO_EVENT_ACQUIRING, 0);
}

inline void Device::report(
    std::unique_lock<std::mutex>& lock, unsigned long code, unsigned long a, unsigned long b, void* p1) {
	const auto callback = mCallback;
	void* const object = mObject;
	if (!callback) return;
	lock.unlock();
	const int answer = callback(object, code, a, b, p1, nullptr);
	// A thread that releases a mutex only for moments would keep commands from it for long.
	while (mWaiting.load() > 0) std::this_thread::yield();
	lock.lock();
	if (answer == QOR_SIO_FAILURE) mAbandoned = true;
}

inline bool Device::sleepUntil(std::unique_lock<std::mutex>& lock, Pacer::Clock::time_point due) {
	const auto seen = mWakes;
	while (canRun() && mWakes == seen) {
		if (mChanged.wait_until(lock, due) == std::cv_status::timeout) break;
	}
	return canRun();
}

inline void Device::wake() {
	++mWakes;
	mChanged.notify_all();
}

} // namespace plugin
