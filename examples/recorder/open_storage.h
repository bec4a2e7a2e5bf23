#pragma once

#include "capture_info.h"
#include "playback.h"

#include <qor/qor.h>

#include <filesystem>
#include <iostream>
#include <string>

inline int trouble(const std::string& text) {
	std::cerr << "recorder: " << text << "\n";
	return kExitTrouble;
}

/// A storage opened to read. Only a storage that exists is opened: playback makes no files.
class OpenStorage {
public:
	explicit OpenStorage(const PlayOptions& options) : mFiles(options.storage), mLog(options.log) {}

	int open() {
		for (const auto& file : {mFiles.sessions, mFiles.index, mFiles.data}) {
			std::error_code error;
			if (!std::filesystem::is_regular_file(file, error))
				return trouble("there is no recording in '" + mFiles.folder + "' (" + file + " is missing)");
		}
		appRawInit(mLog.c_str(), 0);
		std::error_code error;
		const auto bytes = std::filesystem::file_size(mFiles.data, error);
		mStorage.Create(
		    mFiles.sessions.c_str(), mFiles.index.c_str(), mFiles.data.c_str(), static_cast<int>(bytes >> 20));
		const std::string more = mLog.empty() ? "'--log <file>' says more" : mLog + " says more";
		if (!list().IsOpen()) return trouble("cannot read " + mFiles.sessions + "; " + more);
		if (!mStorage.GetTotalSpace())
			return trouble("cannot open " + mFiles.data + " or " + mFiles.index + "; " + more);
		mDamaged = list().Load() != 0;
		if (mDamaged)
			std::cerr << "recorder: the session list is damaged; what can be believed is used, " << more << "\n";
		return kExitGood;
	}

	const StorageFiles& files() const { return mFiles; }
	bool isDamaged() const { return mDamaged; }
	CmsSessionList& list() { return mStorage.GetSessionList(); }
	CmsStorageIndexList& index() { return mStorage.GetIndexList(); }
	CmsStorage& storage() { return mStorage; }

private:
	StorageFiles mFiles;
	std::string mLog;
	CmsStorage mStorage;
	bool mDamaged = false;
};
