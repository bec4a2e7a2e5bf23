#pragma once

#include "qor/platform/file.h"
#include "qor/platform/machine.h"

#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace storage_test {

/// A disk with a volatile cache, in force while it lives. It logs what reaches it, and builds
/// what a power cut would have left of it at any moment: sectors that were written and not
/// flushed are old or new, each by itself; names that were made are there or not until
/// their folder is flushed; a rename is done or not.
class PowerCutDisk final : public platform::FileSystem {
	static constexpr size_t kSector = 512;
	using Bytes = std::shared_ptr<std::string>;
	struct Operation {
		enum Kind { make, write, flush, lose, rename, remove, resize } kind;
		int file = 0; // number of the file
		std::string path, to;
		size_t at = 0;
		std::string bytes;
		bool through = false; // the medium had it when the call returned
	};

public:
	/// What stands on the medium.
	struct State {
		std::map<std::string, int> names;
		std::map<int, std::string> files;
	};

	explicit PowerCutDisk(const State& start = {}) : mStart(start), mFormer(platform::replaceFileSystem(this)) {
		for (const auto& [name, file] : start.names) mNames[name] = file;
		for (const auto& [file, bytes] : start.files) mFiles[file] = std::make_shared<std::string>(bytes);
		for (const auto& [file, bytes] : start.files) mLast = std::max(mLast, file);
	}
	~PowerCutDisk() override { platform::replaceFileSystem(mFormer); }

	size_t operations() const {
		const std::lock_guard lock(mMutex);
		return mLog.size();
	}
	/// The next `count` flushes of a file of that name fail, and lose what they should have flushed.
	void failFlushes(const char* name, int count) { failNext(mFlushFaults, name, count); }
	/// The next `count` renames to that name fail.
	void failRenames(const char* name, int count) { failNext(mRenameFaults, name, count); }
	/// Runs before each flush of a file of that name.
	void beforeFlushes(const char* name, std::function<void()> hook) {
		const std::lock_guard lock(mMutex);
		mHookName = name;
		mHook = std::move(hook);
	}
	/// Writes to a file of that name until now.
	int writesTo(const char* name) const {
		const std::lock_guard lock(mMutex);
		int count = 0;
		for (const auto& op : mLog)
			count += op.kind == Operation::write && mNames.count(name) && op.file == mNames.at(name);
		return count;
	}
	/// The medium with everything that was written.
	State everything() const {
		const std::lock_guard lock(mMutex);
		State state{mNames, {}};
		for (const auto& [file, bytes] : mFiles) state.files[file] = *bytes;
		return state;
	}

	/// Walks along the log: `visit(done, chance)` for each number of operations done, where
	/// `chance(seed)` is one of the states that a cut at this moment may leave.
	void cutEverywhere(size_t from, const std::function<void(size_t, const std::function<State(unsigned)>&)>& visit) {
		Medium medium{mStart, {}, {}};
		for (size_t done = 0; done <= mLog.size(); ++done) {
			const Operation* next = done < mLog.size() ? &mLog[done] : nullptr;
			if (done >= from) visit(done, [&](unsigned seed) { return medium.cut(next, seed); });
			if (next) medium.apply(*next);
		}
	}

	std::unique_ptr<platform::File> open(const char* whole, const platform::FileOpen& how) override {
		const std::lock_guard lock(mMutex);
		const std::string path = nameOf(whole);
		const bool there = mNames.count(path) != 0;
		const bool makes = how.disposition == platform::Disposition::createNew;
		if (there == makes) {
			platform::setLastError(there ? 80 : 2);
			return nullptr;
		}
		if (makes) {
			mFiles[++mLast] = std::make_shared<std::string>();
			mNames[path] = mLast;
			log({Operation::make, mLast, path, "", 0, "", false});
		}
		return std::make_unique<OpenFile>(*this, mNames[path], path, how.flags & platform::kFlagWriteThrough);
	}
	bool exists(const char* path) override {
		const std::lock_guard lock(mMutex);
		return mNames.count(nameOf(path)) != 0;
	}
	bool remove(const char* whole) override {
		const std::lock_guard lock(mMutex);
		const std::string path = nameOf(whole);
		log({Operation::remove, 0, path, "", 0, "", false});
		return mNames.erase(path) != 0;
	}
	bool replace(const char* wholeFrom, const char* wholeTo) override {
		const std::lock_guard lock(mMutex);
		const std::string from = nameOf(wholeFrom), to = nameOf(wholeTo);
		log({Operation::flush, mNames[from], from, "", 0, "", false});
		if (fails(mRenameFaults, to)) return platform::setLastError(5), false;
		mNames[to] = mNames[from];
		mNames.erase(from);
		log({Operation::rename, mNames[to], from, to, 0, "", false});
		return true;
	}

private:
	/// All files stand in one folder.
	static std::string nameOf(const char* path) {
		const std::string whole = path ? path : "";
		return whole.substr(whole.find_last_of("/\\") + 1);
	}
	/// The medium and what is on its way to it.
	struct Medium {
		State state;
		std::vector<Operation> waiting; // writes that were not flushed
		std::vector<Operation> names;   // made or removed, their folder not flushed

		void apply(const Operation& op) {
			switch (op.kind) {
			case Operation::make:
				state.files[op.file];
				names.push_back(op);
				break;
			case Operation::remove: names.push_back(op); break;
			case Operation::resize: state.files[op.file].resize(op.at); break;
			case Operation::write:
				if (op.through)
					put(state, op, op.at, op.bytes.size());
				else
					waiting.push_back(op);
				break;
			case Operation::flush:
			case Operation::lose:
				std::erase_if(waiting, [&](const Operation& w) {
					if (w.file == op.file && op.kind == Operation::flush) put(state, w, w.at, w.bytes.size());
					return w.file == op.file;
				});
				break;
			case Operation::rename:
				for (const auto& name : names) change(state, name);
				names.clear();
				change(state, op);
				break;
			}
		}
		State cut(const Operation* next, unsigned seed) const {
			State left = state;
			std::mt19937 random(seed);
			// The first two seeds: nothing of it has arrived; everything has.
			const auto arrives = [&] { return seed > 1 ? random() % 2 == 0 : seed == 1; };
			for (const auto& name : names) {
				if (arrives()) change(left, name);
			}
			for (const auto& op : waiting) scatter(left, op, arrives);
			if (next && next->kind == Operation::write) scatter(left, *next, arrives);
			if (next && next->kind == Operation::rename && arrives()) change(left, *next);
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
		static void change(State& to, const Operation& op) {
			if (op.kind == Operation::remove) to.names.erase(op.path);
			if (op.kind == Operation::make) to.names[op.path] = op.file;
			if (op.kind != Operation::rename) return;
			to.names.erase(op.path);
			to.names[op.to] = op.file;
		}
	};

	class OpenFile final : public platform::File {
	public:
		OpenFile(PowerCutDisk& disk, int file, std::string path, bool through)
		    : mDisk(disk), mFile(file), mPath(std::move(path)), mThrough(through), mBytes(disk.mFiles[file]) {}
		uint32_t write(const void* data, uint32_t count) override {
			const std::lock_guard lock(mDisk.mMutex);
			if (mBytes->size() < mAt + count) mBytes->resize(mAt + count);
			std::memcpy(mBytes->data() + mAt, data, count);
			mDisk.log(
			    {Operation::write, mFile, "", "", mAt, std::string(static_cast<const char*>(data), count), mThrough});
			mAt += count;
			return count;
		}
		uint32_t read(void* buffer, uint32_t count) override {
			const std::lock_guard lock(mDisk.mMutex);
			const size_t moved = mAt < mBytes->size() ? mBytes->copy(static_cast<char*>(buffer), count, mAt) : 0;
			mAt += moved;
			return static_cast<uint32_t>(moved);
		}
		bool seek(int64_t offset, platform::SeekOrigin, int64_t* position) override {
			mAt = static_cast<size_t>(*position = offset);
			return offset >= 0;
		}
		bool size(int64_t* bytes) override {
			const std::lock_guard lock(mDisk.mMutex);
			return *bytes = static_cast<int64_t>(mBytes->size()), true;
		}
		bool setSize(int64_t bytes) override {
			const std::lock_guard lock(mDisk.mMutex);
			mBytes->resize(static_cast<size_t>(bytes));
			mDisk.log({Operation::resize, mFile, "", "", static_cast<size_t>(bytes), "", false});
			return true;
		}
		bool flush() override {
			mDisk.runHook(mPath);
			const std::lock_guard lock(mDisk.mMutex);
			const bool lost = mDisk.fails(mDisk.mFlushFaults, mPath);
			mDisk.log({lost ? Operation::lose : Operation::flush, mFile, "", "", 0, "", false});
			if (lost) platform::setLastError(5);
			return !lost;
		}
		bool geometry(platform::DiskGeometry*) override { return false; }
		bool layout(platform::DiskLayout*) override { return false; }
		bool deviceNumber(platform::DeviceNumber*) override { return false; }

	private:
		PowerCutDisk& mDisk;
		int mFile;
		std::string mPath;
		bool mThrough;
		Bytes mBytes;
		size_t mAt = 0;
	};

	using Faults = std::map<std::string, int>;
	void failNext(Faults& faults, const char* name, int count) {
		const std::lock_guard lock(mMutex);
		faults[name] = count;
	}
	/// Under the mutex, as `log`.
	static bool fails(Faults& faults, const std::string& path) {
		for (auto& [name, left] : faults) {
			if (left > 0 && path == name) return --left, true;
		}
		return false;
	}
	void log(Operation operation) { mLog.push_back(std::move(operation)); }
	void runHook(const std::string& path) {
		std::function<void()> hook;
		{
			const std::lock_guard lock(mMutex);
			if (path == mHookName) hook = mHook;
		}
		if (hook) hook();
	}

	State mStart;
	platform::FileSystem* mFormer;
	mutable std::mutex mMutex;
	std::map<std::string, int> mNames;
	std::map<int, Bytes> mFiles;
	std::vector<Operation> mLog;
	Faults mFlushFaults, mRenameFaults;
	std::string mHookName;
	std::function<void()> mHook;
	int mLast = 0;
};

} // namespace storage_test
