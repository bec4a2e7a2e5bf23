#include "../base/host_call_internal.h"
#include "../base/wait_guard.h"
#include "../platform/clock.h"
#include "../platform/file.h"
#include "../platform/format.h"
#include "../platform/memory.h"
#include "../platform/window.h"
#include "log_internal.h"

#include <cstring>
#include <utility>

namespace core {

namespace {

constexpr unsigned kLogLockWaitMs = 100;
constexpr int kMaximumCallbackDepth = 8;
constexpr int kLastLineWaitMs = 100;

/// Storage without a destructor.
union Permanent {
	Permanent() : log() {}
	~Permanent() {}
	Log log;
};

/// Calls of the callback on this thread that have not returned.
thread_local int callbackDepth = 0;

} // namespace

Log& theLog() {
	static Permanent permanent;
	return permanent.log;
}

void Log::open(const char* path, uint32_t share) {
	const std::lock_guard guard(mFileMutex);
	if (!mFile) {
		platform::FileOpen how;
		how.disposition = platform::Disposition::createAlways;
		how.access = platform::kAccessRead | platform::kAccessWrite;
		how.share = share;
		mFile = platform::fileSystem().open(path, how);
	}
	if (!mLogLock) mLogLock = platform::createMutex(false);
	base::setLastWords([](const char* line) noexcept { theLog().deliverLast(line); });
}

void Log::close() {
	const std::lock_guard guard(mFileMutex);
	mFile.reset();
	if (const auto lock = mLogLock.exchange(nullptr)) platform::closeHandle(lock);
}

void Log::startTime(double ticksPerSecond) {
	mTicksPerSecond = ticksPerSecond;
	mTimeOrigin = static_cast<double>(platform::counter()) / ticksPerSecond;
}

int Log::addWindow(HWND window) {
	int count = mWindowCount;
	do {
		if (count >= kQorMaximumLogWindows) return 0;
		mWindows[count] = nullptr; // a line meanwhile passes the empty place over
	} while (!mWindowCount.compare_exchange_weak(count, count + 1));
	mWindows[count] = window;
	return 1;
}

void Log::setCallback(std::function<bool(const char*)> function) {
	using Function = std::function<bool(const char*)>;
	std::shared_ptr<const Function> shared;
	try {
		if (function) shared = std::make_shared<const Function>(std::move(function));
	} catch (...) { // no memory: no callback
	}
	const std::lock_guard guard(mCallbackMutex);
	mHasCallback = shared != nullptr;
	mCallback.swap(shared); // the old one ends after the guard, when its last call has returned
}

size_t Log::putTime(char* line) const {
	const double seconds = static_cast<double>(platform::counter()) / ticksPerSecond();
	const double origin = mTimeOrigin.load(std::memory_order_relaxed);
	return platform::formatText(line, kLogLineSize, "%12.2f ", (seconds - origin) * 1000.0);
}

void Log::deliver(char* line, size_t length) {
	// A time-out, and a missing or closed lock, let the line pass without the lock.
	const base::MutexGuard lock(mLogLock.load(), kLogLockWaitMs);
	if (mHasCallback.load(std::memory_order_relaxed)) callBack(line);
	if (mKeepLines.load(std::memory_order_relaxed)) keepLine(line, length);
	postToWindows(line, length);
	writeToFile(line, length);
}

void Log::callBack(const char* line) {
	if (callbackDepth >= kMaximumCallbackDepth) return;
	std::shared_ptr<const std::function<bool(const char*)>> function;
	{
		const std::lock_guard guard(mCallbackMutex);
		function = mCallback;
	}
	if (!function) return;
	++callbackDepth;
	base::callHost("the log's function", [&] { (*function)(line); });
	--callbackDepth;
}

void Log::keepLine(const char* line, size_t length) {
	const std::lock_guard guard(mLinesMutex);
	mLines.append(line, length);
}

void Log::postToWindows(const char* line, size_t length) const {
	const int count = mWindowCount.load(std::memory_order_acquire);
	for (int i = 0; i < count; ++i) {
		const HWND window = mWindows[i];
		if (!window || !platform::windowExists(window)) continue;
		void* copy = platform::allocate(length + 1);
		if (!copy) continue;
		std::memcpy(copy, line, length + 1);
		if (!platform::postToWindow(window, kQorLogWindowMessage, copy, nullptr)) platform::release(copy);
	}
}

void Log::deliverLast(const char* text) noexcept {
	char line[kLogLineSize + 2];
	size_t length = putTime(line);
	length += platform::formatText(line + length, kLogLineSize - length, "%s", text);
	std::unique_lock guard(mFileMutex, std::try_to_lock);
	for (int waited = 0; !guard && waited < kLastLineWaitMs; ++waited) {
		platform::sleepMs(1);
		static_cast<void>(guard.try_lock());
	}
	if (guard) writeLocked(line, length);
}

void Log::writeToFile(char* line, size_t length) {
	const std::lock_guard guard(mFileMutex);
	writeLocked(line, length);
}

void Log::writeLocked(char* line, size_t length) {
	line[length] = '\r';
	line[length + 1] = '\n';
	const auto count = static_cast<uint32_t>(length + 2);
	if (!mFile) return;
	// One write as a rule. What a short one left follows while the file takes anything at all.
	for (uint32_t done = 0; done < count;) {
		const uint32_t written = mFile->write(line + done, count - done);
		if (written == 0 || written > count - done) return;
		done += written;
	}
}

void logWithoutTime(const char* text) {
	char line[kLogLineSize + 2];
	theLog().deliver(line, platform::formatText(line, kLogLineSize, "%s", text));
}

void logAsFormat(const char* text) {
	char line[kLogLineSize + 2];
	size_t length = theLog().putTime(line);
	length += platform::collapsePercents(line + length, kLogLineSize - length, text);
	theLog().deliver(line, length);
}

} // namespace core
