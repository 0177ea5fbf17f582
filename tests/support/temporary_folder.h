/// A folder that is gone after the test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

class Temporary_folder {
 public:
  Temporary_folder() {
    std::string name = (std::filesystem::temp_directory_path() / "pos-test-XXXXXX").string();
    path_ = ::mkdtemp(name.data());
  }
  ~Temporary_folder() { std::filesystem::remove_all(path_); }
  Temporary_folder(const Temporary_folder&) = delete;
  Temporary_folder& operator=(const Temporary_folder&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }
  [[nodiscard]] std::filesystem::path operator/(const std::string& name) const {
    return path_ / name;
  }

 private:
  std::filesystem::path path_;
};
