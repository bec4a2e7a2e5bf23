#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

namespace test_support {

/// A fresh folder, removed with everything in it.
class TempFolder {
public:
	TempFolder()
	    : mPath(std::filesystem::temp_directory_path() / ("qor_test_" + std::to_string(std::random_device{}()))) {
		std::filesystem::create_directories(mPath);
	}
	~TempFolder() {
		std::error_code ignored;
		std::filesystem::remove_all(mPath, ignored);
	}
	TempFolder(const TempFolder&) = delete;
	TempFolder& operator=(const TempFolder&) = delete;
	std::string path(const std::string& name) const { return (mPath / name).string(); }
	std::string path() const { return mPath.string(); }

private:
	std::filesystem::path mPath;
};

inline std::string readFile(const std::string& path) {
	std::ifstream in(path, std::ios::binary);
	return {std::istreambuf_iterator<char>(in), {}};
}

inline void writeFile(const std::string& path, const std::string& text) {
	std::ofstream(path, std::ios::binary) << text;
}

} // namespace test_support
