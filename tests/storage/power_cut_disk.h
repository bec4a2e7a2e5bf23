#pragma once

#include "qor/platform/machine.h"
#include "support/memory_files.h"

#include <cstring>
#include <functional>
#include <mutex>
#include <random>
#include <vector>

namespace storage_test {

/// A disk with a volatile cache, in force while it lives. It logs what reaches it, and builds
/// what a power cut would have left of it at any moment: sectors that were written and not
/// flushed are old or new, each by itself; names that were made are there or not until
/// their folder is flushed; a rename is done or not.
class PowerCutDisk final : public platform::FileSystem {
	static constexpr size_t kSector = 512;
	using Names = std::map<std::string, int>; // numbers of files; in a change 0 removes the name
	struct Operation {
		enum Kind { name, rename, write, flush, lose, resize } kind;
		int file = 0;
		size_t at = 0;
		std::string bytes = {};
		bool through = false; // the medium had it when the call returned
		Names names = {};
	};

public:
	/// What stands on the medium.
	struct State {
		Names names;
		std::map<int, std::string> files;
	};

	explicit PowerCutDisk(const State& start = {})
	    : mStart(start), mNow(start), mFormer(platform::replaceFileSystem(this)) {}
	~PowerCutDisk() override { platform::replaceFileSystem(mFormer); }

	size_t operations() const {
		const std::lock_guard lock(mMutex);
		return mLog.size();
	}
	/// The next `count` of "flush <name>" or "rename <new name>" fail; a flush loses what it should have flushed.
	void failNext(const char* what, int count) {
		const std::lock_guard lock(mMutex);
		mFaults[what] = count;
	}
	/// Runs before each flush of a file of that name.
	void beforeFlushes(const char* name, std::function<void()> hook) {
		const std::lock_guard lock(mMutex);
		mHookName = name;
		mHook = std::move(hook);
	}
	/// Writes to a file of that name until now.
	int writesTo(const char* name) const {
		const std::lock_guard lock(mMutex);
		const auto file = mNow.names.find(name);
		int count = 0;
		for (const auto& op : mLog)
			count += op.kind == Operation::write && file != mNow.names.end() && op.file == file->second;
		return count;
	}
	/// The medium with everything that was written.
	State everything() const {
		const std::lock_guard lock(mMutex);
		return mNow;
	}

	/// Walks along the log: `visit(done, chance)` for each number of operations done, where
	/// `chance(seed)` is one of the states that a cut at this moment may leave.
	void cutEverywhere(const std::function<void(size_t, const std::function<State(unsigned)>&)>& visit) {
		Medium medium{mStart, {}, {}};
		for (size_t done = 0; done <= mLog.size(); ++done) {
			const Operation* next = done < mLog.size() ? &mLog[done] : nullptr;
			visit(done, [&](unsigned seed) { return medium.cut(next, seed); });
			if (next) medium.apply(*next);
		}
	}

	std::unique_ptr<platform::File> open(const char* whole, const platform::FileOpen& how) override {
		const bool there = exists(whole), makes = how.disposition == platform::Disposition::createNew;
		if (there == makes) return platform::setLastError(there ? 80 : 2), nullptr;
		const std::lock_guard lock(mMutex);
		const std::string path = nameOf(whole);
		const int made = static_cast<int>(mNow.files.size()) + 1;
		if (makes) {
			mNow.files[made];
			log({.kind = Operation::name, .file = made, .names = {{path, made}}});
		}
		return std::make_unique<OpenFile>(*this, mNow.names[path], path, how.flags & platform::kFlagWriteThrough);
	}
	bool exists(const char* path) override {
		const std::lock_guard lock(mMutex);
		return mNow.names.count(nameOf(path)) != 0;
	}
	bool remove(const char* path) override {
		const bool there = exists(path);
		const std::lock_guard lock(mMutex);
		log({.kind = Operation::name, .names = {{nameOf(path), 0}}});
		return there;
	}
	bool replace(const char* wholeFrom, const char* wholeTo) override {
		const std::lock_guard lock(mMutex);
		const std::string from = nameOf(wholeFrom), to = nameOf(wholeTo);
		const int file = mNow.names[from];
		log({.kind = Operation::flush, .file = file});
		if (fails("rename " + to)) return platform::setLastError(5), false;
		log({.kind = Operation::rename, .names = {{from, 0}, {to, file}}});
		return true;
	}

private:
	/// All files stand in one folder.
	static std::string nameOf(const char* path) {
		const std::string whole = path ? path : "";
		return whole.substr(whole.find_last_of("/\\") + 1);
	}
	static void change(State& to, const Names& names) {
		for (const auto& [name, file] : names) file ? void(to.names[name] = file) : void(to.names.erase(name));
	}
	/// The medium and what is on its way to it.
	struct Medium {
		State state;
		std::vector<Operation> waiting; // writes that were not flushed
		std::vector<Names> names;       // made or removed, their folder not flushed

		void apply(const Operation& op) {
			switch (op.kind) {
			case Operation::name:
				if (op.file) state.files[op.file];
				names.push_back(op.names);
				break;
			case Operation::rename:
				for (const auto& made : names) change(state, made);
				names.clear();
				change(state, op.names);
				break;
			case Operation::resize: state.files[op.file].resize(op.at); break;
			case Operation::write: op.through ? put(state, op, op.at, op.bytes.size()) : waiting.push_back(op); break;
			case Operation::flush:
			case Operation::lose:
				std::erase_if(waiting, [&](const Operation& w) {
					if (w.file == op.file && op.kind == Operation::flush) put(state, w, w.at, w.bytes.size());
					return w.file == op.file;
				});
			}
		}
		State cut(const Operation* next, unsigned seed) const {
			State left = state;
			std::mt19937 random(seed);
			// The first two seeds: nothing of it has arrived; everything has.
			const auto arrives = [&] { return seed > 1 ? random() % 2 == 0 : seed == 1; };
			for (const auto& made : names)
				if (arrives()) change(left, made);
			for (const auto& op : waiting) scatter(left, op, arrives);
			if (next && next->kind == Operation::write) scatter(left, *next, arrives);
			if (next && next->kind == Operation::rename && arrives()) change(left, next->names);
			return left;
		}
		static void scatter(State& to, const Operation& op, const std::function<bool()>& arrives) {
			for (size_t at = op.at; at < op.at + op.bytes.size();) {
				const size_t end = std::min(op.at + op.bytes.size(), at / kSector * kSector + kSector);
				if (arrives()) put(to, op, at, end - at);
				at = end;
			}
		}
		static void put(State& to, const Operation& op, size_t at, size_t size) {
			std::string& file = to.files[op.file];
			if (file.size() < at + size) file.resize(at + size);
			std::memcpy(file.data() + at, op.bytes.data() + (at - op.at), size);
		}
	};

	struct OpenFile final : test_support::MemoryFile {
		OpenFile(PowerCutDisk& disk, int file, std::string path, bool through)
		    : MemoryFile(disk.mNow.files[file]), mDisk(disk), mFile(file), mPath(std::move(path)), mThrough(through) {}
		uint32_t write(const void* data, uint32_t count) override {
			const std::lock_guard lock(mDisk.mMutex);
			mDisk.log({.kind = Operation::write,
			    .file = mFile,
			    .at = mPosition,
			    .bytes = std::string(static_cast<const char*>(data), count),
			    .through = mThrough});
			Medium::put(mDisk.mNow, mDisk.mLog.back(), mPosition, count);
			mPosition += count;
			return count;
		}
		uint32_t read(void* buffer, uint32_t count) override {
			const std::lock_guard lock(mDisk.mMutex);
			return MemoryFile::read(buffer, count);
		}
		bool size(int64_t* bytes) override {
			const std::lock_guard lock(mDisk.mMutex);
			return MemoryFile::size(bytes);
		}
		bool setSize(int64_t bytes) override {
			const std::lock_guard lock(mDisk.mMutex);
			mBytes.resize(static_cast<size_t>(bytes));
			mDisk.log({.kind = Operation::resize, .file = mFile, .at = mBytes.size()});
			return true;
		}
		bool flush() override {
			std::unique_lock lock(mDisk.mMutex);
			if (const auto hook = mPath == mDisk.mHookName ? mDisk.mHook : nullptr) {
				lock.unlock();
				hook();
				lock.lock();
			}
			const bool lost = mDisk.fails("flush " + mPath);
			mDisk.log({.kind = lost ? Operation::lose : Operation::flush, .file = mFile});
			if (lost) platform::setLastError(5);
			return !lost;
		}
		PowerCutDisk& mDisk;
		const int mFile;
		const std::string mPath;
		const bool mThrough;
	};

	// Under the mutex:
	bool fails(const std::string& what) { return mFaults[what] > 0 && mFaults[what]-- > 0; }
	void log(Operation operation) {
		change(mNow, operation.names);
		mLog.push_back(std::move(operation));
	}

	const State mStart;
	State mNow;
	platform::FileSystem* mFormer;
	mutable std::mutex mMutex;
	std::vector<Operation> mLog;
	std::map<std::string, int> mFaults;
	std::string mHookName;
	std::function<void()> mHook;
};

} // namespace storage_test
