// A directory of the test's own under the system's temporary directory, removed with everything
// in it when the object goes; the one place tests make temporary files by name.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

namespace kest_test {

class TempDir {
 public:
  explicit TempDir(const std::string& prefix = "kest_test")
      : path_(std::filesystem::temp_directory_path() /
              (prefix + "_" + std::to_string(std::random_device{}()))) {
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
  // Writes `contents` to the file `name` in the directory; its path.
  std::string write(const std::string& name, const std::string& contents) const {
    std::ofstream(path_ / name, std::ios::binary) << contents;
    return (path_ / name).string();
  }

 private:
  std::filesystem::path path_;
};

// The bytes of a file, empty when it cannot be read.
inline std::string read_file(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace kest_test
