#include "test_support.h"

#include <fstream>
#include <iterator>

namespace {

namespace fs = std::filesystem;

void writeFile(const fs::path& path, const std::string& bytes) {
	std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string readFile(const fs::path& path) {
	std::ifstream file(path, std::ios::binary);
	return {std::istreambuf_iterator<char>(file), {}};
}

std::string pixels(size_t count, int seed) {
	std::string bytes(count, 0);
	for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>(i * 31 + i / 7 + static_cast<size_t>(seed));
	return bytes;
}

/// The camera with a folder of its own; keeps every frame's bytes.
struct Player : CameraSession {
	FreshFolder folder;
	std::vector<std::string> files;
	bool hasTail = false; // bytes other than 0 behind a file

	Player() : CameraSession("seqcam-0") {
		onFrame = [this](const qorSIO_VCAP_FRAME_INFO& info, const unsigned char* frame) {
			files.emplace_back(reinterpret_cast<const char*>(frame), info.mByteSize);
			const auto room = static_cast<size_t>(camera->getFrameByteSize());
			for (size_t i = info.mByteSize; i < room; ++i) hasTail |= frame[i] != 0;
		};
	}
	~Player() { devices.reset(); }
	int setFolder() { return camera->genICam_SetString("Folder", folder.text().c_str()); }
};

} // namespace

TEST(SequenceCamera, GivesEveryFileByteForByteInOrder) {
	Player player;
	SKIP_WITHOUT_PLUGINS(player);
	const std::vector<std::pair<std::string, std::string>> files = {
	    // in the order of their numbers
	    {"img_0002.pgm", "P5 16 4 255\n" + pixels(64, 1)},
	    {"img_10.PGM", "P5\n# a comment 99 99\n8\t2\r\n65535\n" + pixels(32, 2)},
	    {"img_00011.pgm", "P5 3 3 1\n" + pixels(9, 3) + "more behind the pixels"},
	    {"b_99999999999999999999999.pgm", "P5 1 1 255 \n"},
	};
	for (const auto& [name, bytes] : files) writeFile(player.folder.path() / name, bytes);
	writeFile(player.folder.path() / "notes_3.txt", "not an image");
	writeFile(player.folder.path() / "cover.pgm", "no number, and no image either");
	ASSERT_EQ(player.setFolder(), 0);
	EXPECT_EQ(player.text("Folder"), player.folder.text()) << "backslashes and all";
	EXPECT_EQ(player.camera->genICam_GetInt32("ImageCount"), 4);
	EXPECT_EQ(player.text("FileName:1"), "img_10.PGM");
	EXPECT_EQ(player.text("FileName:4"), "");
	ASSERT_EQ(player.begin(0), 0);
	ASSERT_TRUE(player.finish());
	ASSERT_EQ(player.files.size(), 4u);
	EXPECT_FALSE(player.hasTail);
	for (size_t i = 0; i < 4; ++i) {
		EXPECT_EQ(player.files[i], files[i].second) << files[i].first;
		EXPECT_EQ(player.frames[i].mFrameNumber, i);
		EXPECT_EQ(player.frames[i].mFlags, 0u);
	}
	EXPECT_EQ(player.frames[1].mPixelFormat, qorSIO_PIXEL_MONO16_BIG_ENDIAN);
	EXPECT_EQ(player.frames[1].mWidth, 8u);
	EXPECT_EQ(player.frames[1].mStride, 16u);
	EXPECT_EQ(player.frames[1].mPixelOffset, files[1].second.size() - 32);

	EXPECT_EQ(player.camera->genICam_SetInt32("Loop", 1), 0);
	EXPECT_EQ(player.camera->cmdPrepare() | player.camera->cmdStart(), 0);
	ASSERT_TRUE(eventually([&] { return player.count >= 4 + 9; }));
	EXPECT_EQ(player.setFolder(), 1) << "not while it plays";
	EXPECT_EQ(player.camera->cmdStop(), 0);
	EXPECT_EQ(player.files[4 + 8], files[0].second);
}

TEST(SequenceCamera, RefusesDamagedImages) {
	static const struct {
		const char* name;
		std::string bytes;
		const char* problem;
	} cases[] = {
	    {"pixels missing", "P5 4 4 255\n" + pixels(15, 0), "img_1.pgm: 1 bytes of pixels are missing"},
	    {"16-bit pixels missing", "P5 4 4 256\n" + pixels(16, 0), "16 bytes of pixels are missing"},
	    {"text image", "P2 1 1 255\n0", "not a binary grey-scale image"},
	    {"empty", "", "not a binary grey-scale image"},
	    {"cut header", "P5 4 4", "no valid largest value"},
	    {"unfinished header", "P5 4 4 255", "does not end"},
	    {"no width", "P5 # 4 4 255\n", "no valid width"},
	    {"width 0", "P5 0 4 255\n", "no valid width"},
	    {"negative height", "P5 4 -4 255\n", "no valid height"},
	    {"huge side", "P5 4294967300 4 255\n", "no valid width"},
	    {"too deep", "P5 4 4 65536\n", "no valid largest value"},
	    {"endless comment", "P5 #" + std::string(5000, 'c'), "no valid width"},
	    {"overflow of the size", "P5 65535 65535 65535\n", "bytes of pixels are missing"},
	};
	for (const auto& c : cases) {
		SCOPED_TRACE(c.name);
		Player player;
		SKIP_WITHOUT_PLUGINS(player);
		writeFile(player.folder.path() / "img_0.pgm", "P5 1 1 255\nx");
		writeFile(player.folder.path() / "img_1.pgm", c.bytes);
		EXPECT_EQ(player.setFolder(), 6);
		EXPECT_NE(player.text("Problem").find(c.problem), std::string::npos) << player.text("Problem");
		EXPECT_EQ(player.text("Problem").rfind("1 of 2 images are damaged; img_1.pgm: ", 0), 0u);
		EXPECT_EQ(player.camera->cmdOpen(), 6);
		EXPECT_FALSE(player.camera->isOpen());
	}
	Player player;
	EXPECT_EQ(player.setFolder(), 6);
	EXPECT_EQ(player.text("Problem"), "the folder has no numbered images");
	EXPECT_EQ(player.camera->genICam_SetString("Folder", "/nowhere/at/all"), 6);
	EXPECT_EQ(player.text("Problem").rfind("the folder cannot be read", 0), 0u);
}

TEST(SequenceCamera, MarksAFileThatChanged) {
	Player player;
	SKIP_WITHOUT_PLUGINS(player);
	const auto first = player.folder.path() / "f1.pgm", second = player.folder.path() / "f2.pgm";
	writeFile(first, "P5 4 4 255\n" + pixels(16, 5));
	writeFile(second, "P5 4 4 255\n" + pixels(16, 6));
	ASSERT_EQ(player.setFolder(), 0);
	ASSERT_EQ(player.camera->cmdOpen() | player.camera->cmdAllocInternalBuffers(2), 0);
	writeFile(first, readFile(first).substr(0, 20));
	writeFile(second, readFile(second) + "longer");
	EXPECT_EQ(player.camera->cmdPrepare() | player.camera->cmdStart(), 0);
	ASSERT_TRUE(player.finish());
	ASSERT_EQ(player.frames.size(), 2u);
	EXPECT_EQ(player.frames[0].mByteSize, 20u);
	EXPECT_EQ(player.frames[0].mFlags & qorSIO_FRAME_INCOMPLETE, 1u);
	EXPECT_EQ(player.frames[1].mByteSize, 27u);
	EXPECT_EQ(player.frames[1].mFlags & qorSIO_FRAME_INCOMPLETE, 1u);
	EXPECT_EQ(player.text("Problem"), "f2.pgm: changed while it was played");
}
