// A private temporary directory for one test, removed with everything in it.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

class TestDir {
 public:
  TestDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "tesk-health-XXXXXX").string();
    if (::mkdtemp(tmpl.data()) != nullptr) path_ = tmpl;
  }
  ~TestDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  TestDir(const TestDir&) = delete;
  TestDir& operator=(const TestDir&) = delete;

  const std::string& path() const { return path_; }

  // Writes `text` to path() + "/" + relative, creating folders on the way; returns
  // the full path.
  std::string write(const std::string& relative, const std::string& text) const {
    std::filesystem::path full = std::filesystem::path(path_) / relative;
    std::filesystem::create_directories(full.parent_path());
    std::ofstream(full, std::ios::binary) << text;
    return full.string();
  }

  // Writes `text` to the absolute `path`, creating folders on the way.
  static void writeFile(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
  }

 private:
  std::string path_;
};
