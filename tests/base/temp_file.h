#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

/// A path in a fresh folder, which is removed with it.
struct TempFile {
	~TempFile() { std::filesystem::remove_all(folder); }
	std::string read() const {
		std::ifstream in(path, std::ios::binary);
		return {std::istreambuf_iterator<char>(in), {}};
	}
	void write(const std::string& text) const { std::ofstream(path, std::ios::binary) << text; }
	std::filesystem::path folder =
	    std::filesystem::temp_directory_path() / ("qor_base_" + std::to_string(std::random_device{}()));
	std::string path = (std::filesystem::create_directories(folder), folder / "file").string();
	const char* name = path.c_str();
};
