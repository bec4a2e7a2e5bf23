#pragma once

#include <qor/qor.h>

#include <cstdint>
#include <string>

/// What this program keeps beside the frames.

/// Stands at the start of a session record's application span: what the frames are.
struct CaptureInfo {
	char magic[8]; // kCaptureMagic
	uint32_t width;
	uint32_t height;
	uint32_t stride;       // bytes from one line to the next
	uint16_t pixelFormat;  // qorSIO_PIXEL_...
	uint16_t pixelOffset;  // bytes before the first pixel
	double frameRate;      // frames a second asked of the camera; 0: unknown
	char camera[128];      // vendor, model and identifier
	uint32_t framesFileId; // names the session's file of frame records
};
static_assert(sizeof(CaptureInfo) <= sizeof(emsSTORAGE_SESSION::mUser));

inline constexpr char kCaptureMagic[8] = "qorRec1";

/// The files of one storage folder.
struct StorageFiles {
	explicit StorageFiles(const std::string& folder)
	    : folder(folder), log(folder + "/recorder.log"), sessions(folder + "/sessions.lst"),
	      index(folder + "/frames.idx"), data(folder + "/frames.dat") {}

	/// One `qorSIO_VCAP_FRAME_INFO` for each frame of a session, as the camera gave it but
	/// without the address: frame numbers, device times and true sizes.
	std::string framesFile(uint32_t id) const { return folder + "/frames_" + std::to_string(id) + ".rec"; }

	std::string folder, log, sessions, index, data;
};

/// What the process answers.
enum ExitCode { kExitGood = 0, kExitFramesBad = 1, kExitUsage = 2, kExitTrouble = 3 };
