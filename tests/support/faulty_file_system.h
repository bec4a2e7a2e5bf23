#pragma once

#include "qor/platform/file.h"
#include "qor/platform/machine.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>

namespace test_support {

/// A file system that goes wrong on demand, in front of the operating system's (or another).
/// While it lives it is the one in force; files opened through it keep obeying it. Any thread
/// may use it.
///
///     test_support::FaultyFileSystem faulty;
///     faulty.fail(Call::write, 3);            // the third write from now fails with error 5
///     faulty.tearWrite(2, 100);               // the second write from now moves only 100 bytes
///     faulty.setSpace(1 << 20);               // error 112 behind the next MiB written
///     faulty.makeReadOnly("/tmp/x/list.dat"); // opens for writing, replaces and removals of it fail
class FaultyFileSystem final : public platform::FileSystem {
public:
	enum class Call { open, write, read, seek, size, flush, remove, replace };

	explicit FaultyFileSystem(platform::FileSystem& below = platform::systemFileSystem())
	    : mBelow(below), mFormer(platform::replaceFileSystem(this)) {}
	~FaultyFileSystem() override { platform::replaceFileSystem(mFormer); }

	/// The `nth` call of that kind from now (1: the next) fails with `error`; with `onwards` all later ones too.
	void fail(Call call, int nth, uint32_t error = 5, bool onwards = false) {
		state()->faults[call] = {nth, error, onwards, 0};
	}
	/// The `nth` write from now moves at most `bytes` and leaves `error`.
	void tearWrite(int nth, uint32_t bytes) { state()->faults[Call::write] = {nth, 112, false, bytes}; }
	/// Bytes that may still be written, over all files; -1 is no limit. Writing over old contents counts too.
	void setSpace(int64_t bytes) { state()->space = bytes; }
	/// Takes the path as callers will give it.
	void makeReadOnly(const std::string& path) { state()->readOnly.insert(path); }
	/// While held, writes wait before they are done; `waitForHeldWrite` until one does.
	void holdWrites(bool held) {
		const Locked now = state();
		now->held = held;
		now->waited = false;
	}
	void waitForHeldWrite() {
		std::unique_lock<std::mutex> lock(mShared->mutex);
		mShared->changed.wait(lock, [&] { return mShared->state.waited; });
	}
	/// Files that nobody closed yet.
	long openFiles() const { return mShared.use_count() - 1; }
	/// Forgets faults, limits and counts.
	void reset() { *state().operator->() = State(); }
	/// Calls of that kind since the start or `reset`, failed ones included.
	int calls(Call call) { return state()->calls[call]; }

	std::unique_ptr<platform::File> open(const char* path, const platform::FileOpen& how) override {
		if (!passes(Call::open)) return nullptr;
		const bool changes =
		    (how.access & platform::kAccessWrite) || how.disposition == platform::Disposition::createAlways;
		if (changes && !mayChange(path)) return nullptr;
		auto file = mBelow.open(path, how);
		return file ? std::make_unique<FaultyFile>(std::move(file), mShared) : nullptr;
	}
	bool exists(const char* path) override { return mBelow.exists(path); }
	bool remove(const char* path) override { return passes(Call::remove) && mayChange(path) && mBelow.remove(path); }
	bool replace(const char* from, const char* to) override {
		return passes(Call::replace) && mayChange(from) && mayChange(to) && mBelow.replace(from, to);
	}

private:
	struct Fault {
		int left = 0; // calls to it; 0: none
		uint32_t error = 0;
		bool onwards = false;
		uint32_t passing = 0; // bytes of a torn write
	};
	struct State {
		std::map<Call, int> calls;
		std::map<Call, Fault> faults;
		std::set<std::string> readOnly;
		int64_t space = -1;
		bool held = false, waited = false;
	};
	/// Outlives the file system as long as a file needs it.
	struct Shared {
		std::mutex mutex;
		std::condition_variable changed;
		State state;

		/// Counts a call. @return how many of `count` units it may do; fewer sets the error.
		uint32_t admit(Call call, uint32_t count) {
			std::unique_lock<std::mutex> lock(mutex);
			if (call == Call::write) {
				state.waited = state.held;
				changed.notify_all();
				changed.wait(lock, [&] { return !state.held; });
			}
			++state.calls[call];
			Fault& fault = state.faults[call];
			const bool hit = fault.left > 0 && --fault.left == 0;
			if (hit && fault.onwards) fault.left = 1;
			uint32_t allowed = hit ? std::min(count, fault.passing) : count;
			uint32_t error = hit ? fault.error : 0;
			if (call == Call::write && state.space >= 0) {
				if (allowed > state.space) {
					allowed = static_cast<uint32_t>(state.space);
					error = 112;
				}
				state.space -= allowed;
			}
			if (error) platform::setLastError(error);
			return allowed;
		}
	};

	/// The state, locked while this lives.
	struct Locked {
		explicit Locked(Shared& shared) : mShared(shared), mLock(shared.mutex) {}
		~Locked() { mShared.changed.notify_all(); }
		State* operator->() const { return &mShared.state; }
		Shared& mShared;
		std::lock_guard<std::mutex> mLock;
	};

	class FaultyFile final : public platform::File {
	public:
		FaultyFile(std::unique_ptr<platform::File> below, std::shared_ptr<Shared> shared)
		    : mState(std::move(shared)), mFile(std::move(below)) {}
		uint32_t write(const void* data, uint32_t count) override {
			return limited(mState->admit(Call::write, count), count, [&](uint32_t n) { return mFile->write(data, n); });
		}
		uint32_t read(void* buffer, uint32_t count) override {
			return limited(mState->admit(Call::read, count), count, [&](uint32_t n) { return mFile->read(buffer, n); });
		}
		bool seek(int64_t offset, platform::SeekOrigin origin, int64_t* position) override {
			return mState->admit(Call::seek, 1) && mFile->seek(offset, origin, position);
		}
		bool setSize(int64_t bytes) override { return mFile->setSize(bytes); }
		bool size(int64_t* bytes) override { return mState->admit(Call::size, 1) && mFile->size(bytes); }
		bool flush() override { return mState->admit(Call::flush, 1) && mFile->flush(); }
		void takeRightsOf(const char* path) override { mFile->takeRightsOf(path); }
		bool geometry(platform::DiskGeometry* out) override { return mFile->geometry(out); }
		bool layout(platform::DiskLayout* out) override { return mFile->layout(out); }
		bool deviceNumber(platform::DeviceNumber* out) override { return mFile->deviceNumber(out); }

	private:
		/// Does the allowed part and leaves the injected error standing when it is not all.
		template <class Move>
		static uint32_t limited(uint32_t allowed, uint32_t count, Move move) {
			const uint32_t error = platform::lastError();
			const uint32_t done = allowed || count == 0 ? move(allowed) : 0;
			if (allowed < count && done == allowed) platform::setLastError(error);
			return done;
		}
		std::shared_ptr<Shared> mState; // until the file below is closed
		std::unique_ptr<platform::File> mFile;
	};

	Locked state() const { return Locked(*mShared); }
	bool passes(Call call) { return mShared->admit(call, 1) != 0; }
	bool mayChange(const char* path) {
		if (!path || !state()->readOnly.count(path)) return true;
		platform::setLastError(5);
		return false;
	}

	platform::FileSystem& mBelow;
	platform::FileSystem* mFormer;
	std::shared_ptr<Shared> mShared = std::make_shared<Shared>();
};

} // namespace test_support
