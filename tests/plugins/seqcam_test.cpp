#include "test_support.h"

#include <tuple>

namespace {

std::string pixels(size_t count, int seed) {
	std::string bytes(count, 0);
	for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>(i * 31 + i / 7 + static_cast<size_t>(seed));
	return bytes;
}

/// The camera with a folder of its own; keeps every frame's bytes.
class SequenceCamera : public CameraTest {
protected:
	SequenceCamera() : CameraTest("seqcam-0") {}
	void onFrame(const qorSIO_VCAP_FRAME_INFO& info, const unsigned char* frame) override {
		files.emplace_back(reinterpret_cast<const char*>(frame), info.mByteSize);
		const auto room = static_cast<size_t>(camera->getFrameByteSize());
		for (size_t i = info.mByteSize; i < room; ++i) hasTail |= frame[i] != 0;
	}
	int setFolder(const std::string& path) { return camera->genICam_SetString("Folder", path.c_str()); }

	TempFolder folder;
	std::vector<std::string> files;
	bool hasTail = false; // bytes other than 0 behind a file
};

} // namespace

TEST_F(SequenceCamera, GivesEveryFileByteForByteInOrder) {
	const std::vector<std::pair<std::string, std::string>> written = {
	    // in the order of their numbers
	    {"img_0002.pgm", "P5 16 4 255\n" + pixels(64, 1)},
	    {"img_10.PGM", "P5\n# a comment 99 99\n8\t2\r\n65535\n" + pixels(32, 2)},
	    {"img_00011.pgm", "P5 3 3 1\n" + pixels(9, 3) + "more behind the pixels"},
	    {"IMG_99999999999999999999999.pgm", "P5 1 1 255 \n"},
	};
	for (const auto& [name, bytes] : written) writeFile(folder.path(name), bytes);
	for (const char* name : {"notes_3.txt", "cover.pgm"}) writeFile(folder.path(name), "no numbered image");
	ASSERT_EQ(setFolder(folder.path()), 0);
	EXPECT_EQ(text("Folder"), folder.path()) << "backslashes and all";
	EXPECT_EQ(camera->genICam_GetInt32("ImageCount"), 4);
	EXPECT_TRUE(text("FileName:1") == "img_10.PGM" && text("FileName:4").empty());
	ASSERT_TRUE(begin(0) == 0 && finish() && files.size() == 4 && !hasTail);
	for (size_t i = 0; i < 4; ++i) {
		EXPECT_EQ(files[i], written[i].second) << written[i].first;
		EXPECT_TRUE(frames[i].mFrameNumber == i && frames[i].mFlags == 0) << i;
	}
	const auto& f = frames[1];
	const std::vector<uint64_t> told = {f.mPixelFormat, f.mWidth, f.mStride, f.mPixelOffset};
	EXPECT_EQ(told, (std::vector<uint64_t>{qorSIO_PIXEL_MONO16_BIG_ENDIAN, 8, 16, written[1].second.size() - 32}));

	EXPECT_EQ(camera->genICam_SetInt32("Loop", 1) | camera->cmdPrepare() | camera->cmdStart(), 0);
	ASSERT_TRUE(eventually([&] { return count >= 4 + 9; }));
	EXPECT_EQ(setFolder(folder.path()), 1) << "not while it plays";
	EXPECT_EQ(camera->cmdStop(), 0);
	EXPECT_EQ(files[4 + 8], written[0].second);
}

TEST_F(SequenceCamera, PlaysOneSequenceOfAFolder) {
	for (const char* name : {"a.pgm", "a_1.pgm", "b_1.pgm", "B_02.pgm", "b3_1.pgm", "c_5.pgm", "c_7.pgm"})
		writeFile(folder.path(name), "P5 1 1 255\nx");
	for (const auto& [place, sequence] :
	    {std::pair("", "b_*.pgm: the longest of 4 sequences in the folder; name a file to play its own"),
	        {"c_7.pgm", "c_*.pgm: one of 4 sequences in the folder"}})
		EXPECT_TRUE(setFolder(folder.path(place)) == 0 && text("Sequence") == sequence) << text("Sequence");
	EXPECT_TRUE(setFolder(folder.path("a.pgm")) == 6 && text("Problem") == "not a numbered image: a.pgm");
}

TEST_F(SequenceCamera, RefusesDamagedImages) {
	static const std::tuple<const char*, std::string, const char*> cases[] = {
	    {"pixels missing", "P5 4 4 255\n" + pixels(15, 0), "img_1.pgm: 1 bytes of pixels are missing"},
	    {"16-bit pixels missing", "P5 4 4 256\n" + pixels(16, 0), "16 bytes of pixels are missing"},
	    {"text image", "P2 1 1 255\n0", "not a binary grey-scale image"},
	    {"unfinished header", "P5 4 4 255", "does not end"},
	    {"width 0", "P5 0 4 255\n", "no valid width"},
	    {"huge side", "P5 4294967300 4 255\n", "no valid width"},
	    {"too deep", "P5 4 4 65536\n", "no valid largest value"},
	    {"endless comment", "P5 #" + std::string(5000, 'c'), "no valid width"},
	    {"overflow of the size", "P5 65535 65535 65535\n", "bytes of pixels are missing"},
	};
	EXPECT_TRUE(setFolder(folder.path()) == 6 && text("Problem") == "the folder has no numbered images");
	writeFile(folder.path("img_0.pgm"), "P5 1 1 255\nx");
	for (const auto& [name, bytes, problem] : cases) {
		SCOPED_TRACE(name);
		writeFile(folder.path("img_1.pgm"), bytes);
		EXPECT_TRUE(setFolder(folder.path()) == 6 && camera->cmdOpen() == 6);
		EXPECT_EQ(text("Problem").rfind("1 of 2 images are damaged; img_1.pgm: ", 0), 0u);
		EXPECT_NE(text("Problem").find(problem), std::string::npos) << text("Problem");
	}
	EXPECT_TRUE(setFolder("/nowhere/at/all") == 6 && text("Problem").rfind("the folder cannot be read", 0) == 0);
}

TEST_F(SequenceCamera, MarksAFileThatChanged) {
	const std::string first = folder.path("f1.pgm"), second = folder.path("f2.pgm");
	for (const auto& path : {first, second}) writeFile(path, "P5 4 4 255\n" + pixels(16, 5));
	ASSERT_EQ(setFolder(folder.path()) | camera->cmdOpen() | camera->cmdAllocInternalBuffers(2), 0);
	writeFile(first, readFile(first).substr(0, 20));
	writeFile(second, readFile(second) + "longer");
	EXPECT_EQ(camera->cmdPrepare() | camera->cmdStart(), 0);
	ASSERT_TRUE(finish() && frames.size() == 2);
	EXPECT_TRUE(frames[0].mByteSize == 20 && frames[1].mByteSize == 27);
	EXPECT_EQ(frames[0].mFlags & frames[1].mFlags & qorSIO_FRAME_INCOMPLETE, 1u);
	EXPECT_EQ(text("Problem"), "f2.pgm: changed while it was played");
}
