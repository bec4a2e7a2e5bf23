#pragma once

#include "../platform/file.h"
#include "log_lines_internal.h"
#include "runtime.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace core {

/// A composed line with its terminator; the writer's line end needs two bytes more.
inline constexpr size_t kLogLineSize = 8192;

/// The application log: from a composed line to its four receivers.
///
///     appmsg, object log ... (any thread)
///       | compose on the stack: time column and text
///       v
///     deliver: log lock, at most 100 ms, then without it
///       | callback -> memory list -> windows -> file (one write, line and line end)
///
/// The lines of `qor` and `Cmc` objects come the same way; composing takes no lock at all. The
/// log lock is the only one that a callback runs under, since the receivers shall see the lines
/// in one order; what a hung callback costs another thread is these 100 ms a line.
///
/// The log lock keeps the receivers in step but cannot be relied on: a wait may time out,
/// and `close` may take the lock away while others log. What memory safety needs therefore
/// has short locks of its own, always taken last, one at a time, and never held while the
/// host's code runs: `mFileMutex` for the file, `mLinesMutex` for appending to the memory
/// list, `mCallbackMutex` for exchanging the callback, which its users share.
class Log {
public:
	Log() = default;

	/// Opens the file (emptying it) and makes the log lock, each unless it is there.
	void open(const char* path, uint32_t share);
	/// Closes file and log lock. Threads that are logging finish their lines safely.
	void close();

	/// Divides the counter from now on and starts the time column at 0.
	void startTime(double ticksPerSecond);
	double ticksPerSecond() const { return mTicksPerSecond.load(std::memory_order_relaxed); }

	int addWindow(HWND window);
	void removeWindows() { mWindowCount = 0; }
	void setCallback(std::function<bool(const char*)> function);
	void keepLines(bool active) { mKeepLines = active; }
	const LineList& lines() const { return mLines; }

	/// Writes the time column at the start of `line` (of `kLogLineSize`). @return its length.
	size_t putTime(char* line) const;
	/// Gives a line to all receivers. `line` has room for two bytes behind its terminator.
	void deliver(char* line, size_t length);
	/// Writes a line into the file alone, for a process that is about to end: waits for another
	/// thread's line for a moment, then leaves this one out. May come from within a log callback.
	void deliverLast(const char* text) noexcept;

private:
	void callBack(const char* line);
	void keepLine(const char* line, size_t length);
	void postToWindows(const char* line, size_t length) const;
	void writeToFile(char* line, size_t length);
	void writeLocked(char* line, size_t length);

	std::atomic<double> mTicksPerSecond{1.0};
	std::atomic<double> mTimeOrigin{0.0}; // seconds
	std::atomic<platform::WaitHandle> mLogLock{nullptr};

	std::mutex mFileMutex;
	std::unique_ptr<platform::File> mFile;
	std::mutex mLinesMutex;
	LineList mLines;
	std::atomic<bool> mKeepLines{false};
	std::mutex mCallbackMutex;
	std::shared_ptr<const std::function<bool(const char*)>> mCallback;
	std::atomic<bool> mHasCallback{false};
	std::atomic<int> mWindowCount{0};
	std::atomic<HWND> mWindows[kQorMaximumLogWindows]{};
};

/// The process's log. It is never destroyed: threads may log while the process ends.
Log& theLog();

/// Writes a line without time column.
void logWithoutTime(const char* text);
/// Writes a finished text as `appmsg` writes its format when it has no arguments.
void logAsFormat(const char* text);

} // namespace core
